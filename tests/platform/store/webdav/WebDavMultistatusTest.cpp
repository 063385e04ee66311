#include <gtest/gtest.h>

#include "platform/store/webdav/WebDavMultistatus.h"

namespace cirrovault {

// Own prefixes, default namespaces, absolute and encoded hrefs, properties found and missing.
TEST(WebDavMultistatusTest, ReadsRepliesTheWayServersWriteThem) {
    const std::string prefixed = R"(<?xml version="1.0" encoding="utf-8"?>
<D:multistatus xmlns:D="DAV:" xmlns:ns1="urn:x-cirrovault:">
<D:response xmlns:lp1="DAV:">
<D:href>/dav/alice/</D:href>
<D:propstat><D:prop><lp1:resourcetype><D:collection/></lp1:resourcetype>
<lp1:getlastmodified>Sun, 22 Nov 2026 07:40:11 GMT</lp1:getlastmodified></D:prop>
<D:status>HTTP/1.1 200 OK</D:status></D:propstat>
<D:propstat><D:prop><ns1:mtime/></D:prop><D:status>HTTP/1.1 404 Not Found</D:status></D:propstat>
</D:response>
<D:response><D:href>http://h:8080/dav/alice/a%20b%C3%A9.txt</D:href>
<D:propstat><D:prop><lp1:getcontentlength xmlns:lp1="DAV:">8</lp1:getcontentlength>
<lp1:getetag xmlns:lp1="DAV:">W/"8-66"</lp1:getetag>
<mtime xmlns="urn:x-cirrovault:" xmlns:ns0="urn:uuid:x/" ns0:dt="string"> 1600000000.5 </mtime>
</D:prop><D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response>
</D:multistatus>)";
    std::vector<DavResource> resources;
    ASSERT_TRUE(WebDavMultistatus::parse(prefixed, resources));
    ASSERT_EQ(resources.size(), 2u);
    EXPECT_EQ(resources[0].path, "/dav/alice");
    EXPECT_TRUE(resources[0].collection);
    ASSERT_TRUE(resources[0].lastModified);
    EXPECT_EQ(resources[0].lastModified->timeIntervalSince1970(), 1795333211.0);
    EXPECT_FALSE(resources[0].property("urn:x-cirrovault:", "mtime"));
    EXPECT_EQ(resources[0].failed.count("urn:x-cirrovault: mtime"), 1u);

    EXPECT_EQ(resources[1].path, "/dav/alice/a b\xC3\xA9.txt");
    EXPECT_FALSE(resources[1].collection);
    EXPECT_EQ(resources[1].contentLength, 8u);
    EXPECT_EQ(resources[1].etag, "W/\"8-66\"");
    EXPECT_EQ(resources[1].property("urn:x-cirrovault:", "mtime"), "1600000000.5");

    // A MOVE or COPY answered 207 with its failure inside.
    const std::string hidden = R"(<?xml version="1.0"?><x:multistatus xmlns:x="DAV:">
<x:response><x:href>/dav/alice/X/</x:href><x:status>HTTP/1.1 409 Conflict</x:status></x:response>
</x:multistatus>)";
    ASSERT_TRUE(WebDavMultistatus::parse(hidden, resources));
    ASSERT_EQ(resources.size(), 1u);
    EXPECT_EQ(resources[0].status, 409);

    // Not a multistatus: an error page, an element of another namespace, nothing.
    EXPECT_FALSE(WebDavMultistatus::parse("<html><body>500</body></html>", resources));
    EXPECT_FALSE(WebDavMultistatus::parse("<multistatus xmlns=\"urn:other\"/>", resources));
    EXPECT_FALSE(WebDavMultistatus::parse("", resources));
    EXPECT_FALSE(WebDavMultistatus::parseHttpDate("yesterday"));
}

} // namespace cirrovault

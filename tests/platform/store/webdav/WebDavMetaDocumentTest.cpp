// What servers answer, and, on a server that keeps no properties, our metadata documents.
#include <gtest/gtest.h>

#include "common/TempHome.h"
#include "common/WebDavTestServer.h"
#include "platform/store/StoreTestSupport.h"
#include "platform/store/webdav/WebDavMetaDocument.h"
#include "platform/store/webdav/WebDavMultistatus.h"
#include "platform/store/webdav/WebDavStore.h"
#include "platform/store/webdav/WebDavTextSource.h"

namespace cirrovault::test {

namespace {

namespace R = ResultCode;

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

TEST(WebDavMetaDocumentTest, AnyNameSurvivesAndDamagedLinesAreSkipped) {
    WebDavMetaEntries entries;
    entries["plain.txt"] = {false, 1'650'000'000.123456, 42, 1'700'000'000, "", ""};
    entries["tab\tnew\nline %41 é"] = {false, 1.5, 0, 0, "", ""};
    entries["Folder"] = {true, 0, 0, 0, "my\tdescription", ""};
    entries["id_key"] = {false, 2.5, 6, 0, "", "", 0100600};
    std::string text = WebDavMetaDocument::format(entries);
    auto parsed = WebDavMetaDocument::parse(text);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(*parsed, entries);

    parsed = WebDavMetaDocument::parse(text + "f\tbroken\tnot-a-number\t1\t2\nx\ty\nd\n" +
                                       "f\tlate.txt\t5\t6\t7\n");
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->size(), entries.size() + 1);
    EXPECT_EQ(parsed->count("broken"), 0u);
    EXPECT_EQ(parsed->at("late.txt").size, 6u);
    EXPECT_EQ(parsed->at("late.txt").mode, 0u); // written before files kept their modes

    EXPECT_FALSE(WebDavMetaDocument::parse("<html>not ours</html>"));
    EXPECT_FALSE(WebDavMetaDocument::parse(""));
}

TEST(WebDavMetaStoreTest, TimesReachOtherProcessesOnlyOnceWrittenAndOnlyForOurCopy) {
    TempHome home;
    WebDavTestServer server(WebDavTestServer::Kind::LighttpdWithoutProperties, home.file("server"),
                            {{"alice", "secret"}});
    auto logon = [&] { return loggedOn(std::make_unique<WebDavStore>(server.url("{user}/"))); };
    auto timeOf = [](StoreBackend& store, const std::string& path) {
        return itemAt(store, path).modifyTime.timeIntervalSince1970();
    };
    const std::string onServer = server.dataFolder() + "/alice/Docs";
    const Date when{1'600'000'000.25};
    const double seconds = when.timeIntervalSince1970();
    auto first = logon();
    ASSERT_EQ(first->makeFolder("\\Docs", "documents", "Docs"), R::Success);
    ASSERT_EQ(putText(*first, "\\Docs\\a.txt", "alpha", when), R::Success);
    ASSERT_EQ(putText(*first, "\\Docs\\b.txt", "bravo", when), R::Success);
    EXPECT_EQ(timeOf(*first, "\\Docs\\a.txt"), seconds); // held in memory

    // Another process sees the server's own time until the changes are written.
    auto second = logon();
    EXPECT_NE(timeOf(*second, "\\Docs\\a.txt"), seconds);
    ASSERT_EQ(first->flush(), R::Success);
    EXPECT_EQ(timeOf(*second, "\\Docs\\a.txt"), seconds);
    std::string entries; // the documents themselves are never listed
    for (const auto& item : listed(*second, "\\"))
        entries += item.name + " " + item.description + ", ";
    for (const auto& item : listed(*second, "\\Docs"))
        entries += item.name + (item.modifyTime.timeIntervalSince1970() == seconds ? " ours, " : " not, ");
    EXPECT_EQ(entries, "Docs documents, a.txt ours, b.txt ours, ");

    // Someone else replaced b.txt (same size, later time): our entry no longer holds.
    ASSERT_TRUE(FileSystem::writeFileAtomically(onServer + "/b.txt", "BRAVO"));
    ASSERT_TRUE(FileSystem::setModifyTime(onServer + "/b.txt", Date(1'800'000'000.0)));
    EXPECT_EQ(timeOf(*second, "\\Docs\\b.txt"), 1'800'000'000.0);

    // Our name is refused for user files; a damaged document costs only the times.
    EXPECT_EQ(putText(*second, "\\Docs\\.cirrovault-meta", "x", when), R::BadPath);
    EXPECT_EQ(second->makeFolder("\\.cirrovault-meta", "", ""), R::BadPath);
    // (Through the server: it may hold a file's status for a moment after a change on disk.)
    WebDavTextSource garbage("garbage");
    HttpRequest request = httpRequest(
        "PUT", "http://127.0.0.1:" + std::to_string(server.port()) + "/alice/Docs/.cirrovault-meta");
    request.upload = &garbage;
    request.uploadLength = 7;
    HttpResponse response;
    ASSERT_EQ(WebDavHttpSession("alice", "secret", {}).perform(request, response), R::Success);
    ASSERT_EQ(response.status / 100, 2);
    EXPECT_NE(timeOf(*second, "\\Docs\\a.txt"), seconds);
    ASSERT_EQ(putText(*second, "\\Docs\\a.txt", "alpha", when), R::Success);
    ASSERT_EQ(second->flush(), R::Success);
    EXPECT_EQ(timeOf(*logon(), "\\Docs\\a.txt"), seconds);

    // Changes waiting for a folder that is then removed are dropped, not written back.
    ASSERT_EQ(putText(*second, "\\Docs\\new.txt", "new", when), R::Success);
    ASSERT_EQ(second->remove("\\Docs"), R::Success);
    EXPECT_EQ(second->flush(), R::Success);
    EXPECT_FALSE(FileSystem::exists(onServer));
}

} // namespace

} // namespace cirrovault::test

// A WebDAV server's 207 reply, with the date, status-line and href helpers it feeds.

#include "FuzzInput.h"
#include "platform/store/webdav/WebDavMultistatus.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string body = fuzz::text(data, size);
    std::vector<DavResource> resources;
    if (WebDavMultistatus::parse(body, resources)) {
        for (const auto& r : resources) {
            (void)r.property("DAV:", "getetag");
            if (!r.path.empty() && r.path.back() == '/' && r.path != "/")
                fuzz::broken("a resource path keeps its trailing slash");
        }
    }
    (void)WebDavMultistatus::parseHttpDate(body);
    (void)WebDavMultistatus::parseStatusLine(body);
    (void)WebDavMultistatus::hrefPath(body);
    return 0;
}

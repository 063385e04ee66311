#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/os/Date.h"

namespace cirrovault {

// One <response> of a multistatus reply.
struct DavResource {
    std::string path;   // the href's path, percent-decoded, without scheme, host or trailing "/"
    int status = 0;     // the response's own status, when it gives one (failures of MOVE, DELETE...)
    bool collection = false;
    std::optional<uint64_t> contentLength;
    std::optional<Date> lastModified;
    std::string etag;
    // Properties found (propstat 200), keyed "namespace name"; their text content.
    std::map<std::string, std::string> properties;
    // Properties the server refused to set or remove (PROPPATCH), with their status.
    std::map<std::string, int> failed;

    std::optional<std::string> property(const std::string& ns, const std::string& name) const;
};

// Reads 207 Multi-Status bodies the way servers write them: any namespace prefixes
// (or default namespaces), extra attributes, hrefs absolute or relative.
class WebDavMultistatus {
public:
    // False for a body that is not a well-formed multistatus document.
    static bool parse(const std::string& body, std::vector<DavResource>& resources);
    // "Sun, 06 Nov 1994 08:49:37 GMT"; nullopt when malformed.
    static std::optional<Date> parseHttpDate(const std::string& text);
    // Status code of "HTTP/1.1 404 Not Found"; 0 when malformed.
    static int parseStatusLine(const std::string& text);
    // The decoded path of an href: "http://h:1/a%20b/" and "/a%20b" both give "/a b".
    static std::string hrefPath(const std::string& href);
};

} // namespace cirrovault

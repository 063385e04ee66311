#pragma once

#include <string>

namespace cirrovault {

// Percent-encoding of request and reply values: letters, digits and "-._~" stay,
// every other byte becomes %XX (upper-case hex).
class UrlCoding {
public:
    static std::string encode(const std::string& text);
    // %XX sequences (either case) are decoded; a malformed "%" is kept as it stands.
    static std::string decode(const std::string& text);
};

} // namespace cirrovault

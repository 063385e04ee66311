#include "platform/framework/ServerName.h"

#include <string_view>

namespace cirrovault {

namespace {

constexpr std::string_view kRefused = "\\/:*?\"<>|{}";
constexpr char kHex[] = "0123456789ABCDEF";

int hexValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1; // lower case is never written, so never read
}

// The character an escape at text[i] stands for, or 0 when there is none there.
char escapeAt(std::string_view text, size_t i) {
    if (i + 2 >= text.size() || text[i] != '%')
        return 0;
    int high = hexValue(text[i + 1]);
    int low = hexValue(text[i + 2]);
    if (high < 0 || low < 0)
        return 0;
    char c = static_cast<char>(high * 16 + low);
    return c == '%' || kRefused.find(c) != std::string_view::npos ? c : 0;
}

void appendEscape(std::string& out, char c) {
    auto byte = static_cast<unsigned char>(c);
    out += '%';
    out += kHex[byte >> 4];
    out += kHex[byte & 15];
}

template <typename Convert>
std::string eachComponent(const std::string& path, char from, char to, Convert convert) {
    std::string out;
    size_t start = 0;
    for (;;) {
        size_t cut = path.find(from, start);
        out += convert(path.substr(start, cut == std::string::npos ? std::string::npos : cut - start));
        if (cut == std::string::npos)
            return out;
        out += to;
        start = cut + 1;
    }
}

} // namespace

bool ServerName::needsEncoding(const std::string& localName) {
    return localName.find_first_of(kRefused) != std::string::npos;
}

std::string ServerName::encode(const std::string& localName) {
    std::string out;
    out.reserve(localName.size());
    for (size_t i = 0; i < localName.size(); ++i) {
        char c = localName[i];
        if (kRefused.find(c) != std::string_view::npos || (c == '%' && escapeAt(localName, i)))
            appendEscape(out, c);
        else
            out += c;
    }
    return out;
}

std::string ServerName::decode(const std::string& serverName) {
    std::string out;
    out.reserve(serverName.size());
    for (size_t i = 0; i < serverName.size(); ++i) {
        if (char c = escapeAt(serverName, i)) {
            out += c;
            i += 2;
        } else {
            out += serverName[i];
        }
    }
    return out;
}

std::string ServerName::encodePath(const std::string& localRelative) {
    return eachComponent(localRelative, '/', '\\', encode);
}

std::string ServerName::decodePath(const std::string& serverRelative) {
    return eachComponent(serverRelative, '\\', '/', decode);
}

} // namespace cirrovault

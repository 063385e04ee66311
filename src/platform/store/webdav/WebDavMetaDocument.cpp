#include "platform/store/webdav/WebDavMetaDocument.h"

#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <type_traits>
#include <vector>

#include "platform/os/UrlCoding.h"

namespace cirrovault {

namespace {

constexpr std::string_view Header = "cirrovault-meta 1";

std::vector<std::string> fieldsOf(const std::string& line) {
    std::vector<std::string> fields;
    size_t start = 0;
    for (;;) {
        size_t tab = line.find('\t', start);
        fields.push_back(UrlCoding::decode(line.substr(start, tab - start)));
        if (tab == std::string::npos)
            return fields;
        start = tab + 1;
    }
}

template <typename Number>
bool numberOf(const std::string& text, Number& value) {
    if (text.empty())
        return false;
    char* end = nullptr;
    errno = 0;
    if constexpr (std::is_floating_point_v<Number>)
        value = std::strtod(text.c_str(), &end);
    else if constexpr (std::is_signed_v<Number>)
        value = std::strtoll(text.c_str(), &end, 10);
    else
        value = std::strtoull(text.c_str(), &end, 10);
    return errno == 0 && end && *end == '\0';
}

} // namespace

std::optional<WebDavMetaEntries> WebDavMetaDocument::parse(const std::string& text) {
    std::istringstream lines(text);
    std::string line;
    if (!std::getline(lines, line) || line != Header)
        return std::nullopt;
    WebDavMetaEntries entries;
    while (std::getline(lines, line)) {
        auto fields = fieldsOf(line);
        if (fields.size() < 2 || fields[1].empty())
            continue;
        WebDavMetaEntry entry;
        if (fields[0] == "f" && (fields.size() == 5 || fields.size() == 6)) {
            uint64_t mode = 0;
            if (!numberOf(fields[2], entry.modifyTime) || !numberOf(fields[3], entry.size) ||
                !numberOf(fields[4], entry.serverTime) ||
                (fields.size() == 6 && !numberOf(fields[5], mode)))
                continue;
            entry.mode = static_cast<uint32_t>(mode);
        } else if (fields[0] == "d" && fields.size() == 4) {
            entry.folder = true;
            entry.description = fields[2];
            entry.caption = fields[3];
        } else {
            continue;
        }
        entries[fields[1]] = std::move(entry);
    }
    return entries;
}

std::string WebDavMetaDocument::format(const WebDavMetaEntries& entries) {
    std::ostringstream out;
    out.precision(17);
    out << Header << '\n';
    for (const auto& [name, entry] : entries) {
        if (entry.folder)
            out << "d\t" << UrlCoding::encode(name) << '\t' << UrlCoding::encode(entry.description)
                << '\t' << UrlCoding::encode(entry.caption) << '\n';
        else
            out << "f\t" << UrlCoding::encode(name) << '\t' << entry.modifyTime << '\t'
                << entry.size << '\t' << entry.serverTime
                << (entry.mode != 0 ? '\t' + std::to_string(entry.mode) : std::string()) << '\n';
    }
    return out.str();
}

} // namespace cirrovault

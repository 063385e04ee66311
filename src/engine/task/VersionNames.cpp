#include "engine/task/VersionNames.h"

#include <algorithm>

#include <fmt/format.h>

namespace cirrovault {

namespace {

constexpr size_t kNameMax = 255;     // bytes of one file name on the stores' file systems
constexpr size_t kNumberDigits = 9;  // the longest number a version name carries
constexpr size_t kLongestExtension = 64;
// A cut stem keeps at least this many bytes of its name.
constexpr size_t kShortestCut = kNameMax - kNumberDigits - kLongestExtension - 20;

struct Parts {
    std::string stem; // what the number follows
    std::string ext;  // with its dot; empty for none
};

uint64_t hashOf(const std::string& text) {
    uint64_t h = 14695981039346656037ull; // FNV-1a
    for (unsigned char c : text) {
        h ^= c;
        h *= 1099511628211ull;
    }
    return h;
}

// The longest prefix of text within limit bytes that does not cut a UTF-8 character.
std::string utf8Prefix(const std::string& text, size_t limit) {
    if (text.size() <= limit)
        return text;
    size_t end = limit;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80)
        --end;
    return text.substr(0, end);
}

Parts partsOf(const std::string& fileName) {
    size_t dot = fileName.rfind('.');
    Parts parts;
    if (dot == std::string::npos || dot == 0 || fileName.size() - dot > kLongestExtension) {
        parts.stem = fileName;
    } else {
        parts.stem = fileName.substr(0, dot);
        parts.ext = fileName.substr(dot);
    }
    // The user's own name stays as it is; only its versions get a shorter stem.
    if (parts.stem.size() + kNumberDigits + parts.ext.size() > kNameMax) {
        std::string mark = fmt::format("~{:016x}", hashOf(fileName));
        parts.stem = utf8Prefix(parts.stem, kNameMax - kNumberDigits - parts.ext.size() -
                                                 mark.size()) +
                     mark;
    }
    return parts;
}

// The number entry carries as a version of the file with these parts, if it is one.
std::optional<uint64_t> parse(const std::string& entry, const Parts& parts) {
    size_t fixed = parts.stem.size() + parts.ext.size();
    if (entry.size() <= fixed || entry.compare(0, parts.stem.size(), parts.stem) != 0 ||
        entry.compare(entry.size() - parts.ext.size(), parts.ext.size(), parts.ext) != 0)
        return std::nullopt;
    std::string digits = entry.substr(parts.stem.size(), entry.size() - fixed);
    // Only the numbers this system writes: no sign, no leading zero.
    if (digits.size() > kNumberDigits || digits.find_first_not_of("0123456789") != std::string::npos ||
        (digits.size() > 1 && digits[0] == '0'))
        return std::nullopt;
    return std::stoull(digits);
}

} // namespace

std::string VersionNames::name(const std::string& fileName, uint64_t number) {
    Parts parts = partsOf(fileName);
    return parts.stem + std::to_string(number) + parts.ext;
}

std::string VersionNames::stemOf(const std::string& fileName) {
    return partsOf(fileName).stem;
}

std::optional<uint64_t> VersionNames::numberOf(const std::string& entry,
                                               const std::string& fileName,
                                               const std::vector<std::string>& siblings) {
    Parts own = partsOf(fileName);
    std::optional<uint64_t> number = parse(entry, own);
    if (!number)
        return std::nullopt;
    for (const auto& sibling : siblings) {
        if (sibling == fileName)
            continue;
        Parts other = partsOf(sibling);
        if (other.stem.size() > own.stem.size() && parse(entry, other))
            return std::nullopt; // a longer base continues it: the version is the other's
    }
    return number;
}

std::vector<std::string> VersionNames::rivals(const std::string& fileName,
                                              const std::vector<std::string>& siblings) {
    // A claim needs a longer stem that begins with this file's stem; every stem begins
    // with its name's first kShortestCut bytes.
    std::string stem = partsOf(fileName).stem;
    size_t shared = std::min(stem.size(), kShortestCut);
    std::vector<std::string> found;
    for (const auto& sibling : siblings)
        if (sibling != fileName && sibling.compare(0, shared, stem, 0, shared) == 0)
            found.push_back(sibling);
    return found;
}

} // namespace cirrovault

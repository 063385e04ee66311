#include "platform/store/StorePath.h"

#include <cstdint>
#include <cstdio>

namespace cirrovault {

namespace {

// 64-bit FNV-1a: stable across builds and machines, which a shortened name needs to be
// found again by the next process.
uint64_t nameHash(std::string_view text) {
    uint64_t hash = 14695981039346656037ull;
    for (unsigned char c : text) {
        hash ^= c;
        hash *= 1099511628211ull;
    }
    return hash;
}

} // namespace

std::string StorePath::nameWithSuffix(std::string_view name, std::string_view suffix) {
    if (name.size() + suffix.size() <= MadeNameLength)
        return std::string(name).append(suffix);
    char mark[18];
    std::snprintf(mark, sizeof mark, "~%016llx", static_cast<unsigned long long>(nameHash(name)));
    size_t keep = MadeNameLength - suffix.size() - (sizeof mark - 1);
    // Never cut inside a UTF-8 sequence: continuation bytes are 10xxxxxx.
    while (keep > 0 && (static_cast<unsigned char>(name[keep]) & 0xC0) == 0x80)
        --keep;
    return std::string(name.substr(0, keep)).append(mark).append(suffix);
}

std::string StorePath::partPath(const std::string& path) {
    size_t cut = path.rfind('\\') + 1;
    return path.substr(0, cut) + nameWithSuffix(std::string_view(path).substr(cut), PartSuffix);
}

bool StorePath::isValidName(std::string_view name) {
    if (name.empty() || name == "." || name == ".." || name.size() > MaxNameLength)
        return false;
    for (char c : name) {
        if (c == '\0' || c == '/' || c == '\\')
            return false;
    }
    return true;
}

std::optional<std::vector<std::string>> StorePath::split(std::string_view path) {
    if (path.empty())
        return std::nullopt;
    if (path.front() == '\\')
        path.remove_prefix(1);
    std::vector<std::string> names;
    if (path.empty())
        return names; // the root
    if (path.back() == '\\') {
        path.remove_suffix(1);
        if (path.empty())
            return std::nullopt; // "\\" is an empty name, not the root
    }
    for (;;) {
        auto cut = path.find('\\');
        std::string_view name = path.substr(0, cut);
        if (!isValidName(name))
            return std::nullopt;
        names.emplace_back(name);
        if (cut == std::string_view::npos)
            break;
        path.remove_prefix(cut + 1);
    }
    return names;
}

std::string StorePath::join(const std::vector<std::string>& names) {
    if (names.empty())
        return "\\";
    std::string path;
    for (const auto& name : names) {
        path += '\\';
        path += name;
    }
    return path;
}

std::optional<std::string> StorePath::normalize(std::string_view path) {
    auto names = split(path);
    if (!names)
        return std::nullopt;
    return join(*names);
}

bool StorePath::isSameOrInside(const std::string& path, const std::string& folder) {
    if (folder == "\\")
        return true;
    if (path.size() < folder.size() || path.compare(0, folder.size(), folder) != 0)
        return false;
    return path.size() == folder.size() || path[folder.size()] == '\\';
}

std::string StorePath::child(const std::string& folder, const std::string& name) {
    return folder == "\\" ? "\\" + name : folder + "\\" + name;
}

std::string StorePath::rebase(const std::string& path, const std::string& from,
                              const std::string& to) {
    std::string rest = from == "\\" ? path : path.substr(from.size()); // "" or "\b\c"
    if (rest.empty() || rest == "\\")
        return to;
    return to == "\\" ? rest : to + rest;
}

} // namespace cirrovault

#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace cirrovault {

// Server paths as every backend reads them: names separated by "\", relative to the
// account's root. A leading "\" is optional and one trailing "\" is tolerated ("\a\" is
// "\a"); "\" alone is the root. Refused: the empty path, empty names ("\a\\b"), "." and
// "..", and names holding NUL or "/" or longer than a file system name may be. A path
// that passes can only name something inside the account, so backends check here first.
class StorePath {
public:
    // The names of the path, root first; empty for the root; nullopt when refused.
    static std::optional<std::vector<std::string>> split(std::string_view path);
    // "\a\b" for {"a", "b"}; "\" for no names. Names are taken as they are.
    static std::string join(const std::vector<std::string>& names);
    // The path in its one canonical form ("\a\b"); nullopt when refused.
    static std::optional<std::string> normalize(std::string_view path);
    static bool isValidName(std::string_view name);

    // Both arguments canonical. True when path is folder itself or lies beneath it.
    static bool isSameOrInside(const std::string& path, const std::string& folder);
    // Canonical path of "name" inside the canonical folder.
    static std::string child(const std::string& folder, const std::string& name);
    // The canonical path with its leading folder prefix replaced: rebase("\a\b\c",
    // "\a", "\x") is "\x\b\c". path must lie inside (or be) from.
    static std::string rebase(const std::string& path, const std::string& from,
                              const std::string& to);

    // A name the store makes beside a user's "name" (an upload's part, an older
    // version): name + suffix when that fits MadeNameLength, else the start of name (cut
    // between characters) with "~" and a hash of the whole name before the suffix. The
    // same name always gives the same answer; the user's own name is never shortened.
    static std::string nameWithSuffix(std::string_view name, std::string_view suffix);
    // Names we make stay this short: servers keep a file's properties under its name
    // with a suffix of their own (Apache adds ".pag"), which must fit MaxNameLength too.
    static constexpr size_t MadeNameLength = 240;
    // The server path of the unfinished upload ("name.part") of the canonical path.
    static std::string partPath(const std::string& path);
    static constexpr std::string_view PartSuffix = ".part";

    static constexpr size_t MaxNameLength = 255; // bytes, as Linux file systems allow
};

} // namespace cirrovault

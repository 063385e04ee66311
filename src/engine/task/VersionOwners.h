#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace cirrovault {

// Which file of one folder each entry of its version folder belongs to, for a whole
// listing at once: the entry's prefixes are looked up among the files' bases, so a large
// folder costs no walk of its files per entry.
class VersionOwners {
public:
    struct Owner {
        std::string file;
        uint64_t number = 0;
    };

    explicit VersionOwners(const std::vector<std::string>& files);

    // The file the entry is a version of (the one with the longest base it continues),
    // or nothing when it is none of theirs.
    std::optional<Owner> of(const std::string& entry) const;
    // Whether a version of file would be given this number: its name is no file's own
    // and no other file would claim it.
    bool numberFits(const std::string& file, uint64_t number) const;

private:
    std::vector<std::string> files_;
    std::unordered_map<std::string, std::vector<std::string>> byStem_;
    size_t longestStem_ = 0;
};

} // namespace cirrovault

#include "engine/task/VersionOwners.h"

#include <algorithm>

#include "engine/task/VersionNames.h"

namespace cirrovault {

VersionOwners::VersionOwners(const std::vector<std::string>& files) : files_(files) {
    std::sort(files_.begin(), files_.end());
    for (const auto& file : files_) {
        std::string stem = VersionNames::stemOf(file);
        longestStem_ = std::max(longestStem_, stem.size());
        byStem_[stem].push_back(file);
    }
}

std::optional<VersionOwners::Owner> VersionOwners::of(const std::string& entry) const {
    // Longest base first: a longer base that reads the entry as a version claims it.
    for (size_t length = std::min(entry.size(), longestStem_); length > 0; --length) {
        auto found = byStem_.find(entry.substr(0, length));
        if (found == byStem_.end())
            continue;
        for (const auto& file : found->second)
            if (auto number = VersionNames::numberOf(entry, file, {}))
                return Owner{file, *number};
    }
    return std::nullopt;
}

bool VersionOwners::numberFits(const std::string& file, uint64_t number) const {
    std::string name = VersionNames::name(file, number);
    if (std::binary_search(files_.begin(), files_.end(), name))
        return false;
    auto owner = of(name);
    return owner && owner->file == file && owner->number == number;
}

} // namespace cirrovault

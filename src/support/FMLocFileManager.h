#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/os/Date.h"
#include "support/GlobalFunction.h"

namespace cirrovault {

// Display attributes of local items for the file browser. An instance holds the date
// format of its rows; the other operations need no instance and are static.
class FMLocFileManager {
public:
    FMLocFileManager();

    // "Name", "DateModified", "Kind", "Path", "Type", "Size"; empty when the item
    // cannot be read.
    std::map<std::string, std::string> GetFileAttribute(const std::string& path) const;
    // Medium date, short time: "Jan 5, 2024, 3:04 PM".
    std::string formatDate(Date date) const;

    static std::optional<uint64_t> GetFileSize(const std::string& path);
    // "" for none or 0; bytes, KB, MB with one decimal, GB with two (terabytes too).
    static std::string FormatFileSize(std::optional<uint64_t> size);
    static std::string CopyKindString(const std::string& path);
    static std::string CopyDispalyName(const std::string& path);
    static std::optional<std::vector<std::string>> GetCurSubPathURLArray(const std::string& folder);
    static uint32_t GetCurSubItemCount(const std::string& folder);
    static ItemInfoRecord GetItemInfo(uint32_t requestFlags, const std::string& forPath);
    // Answers true whatever the item is; ShouldDisplay does the hiding.
    static bool IsInvisible(const std::string& path);
    // Names beginning with "." are hidden.
    static bool ShouldDisplay(const std::string& path);
    // "copy" and "move" into destination (a folder; required), "destroy" removes the
    // item and everything in it, "recycle" moves it to the user's trash. Unknown → false.
    static bool doFileOperation(const std::string& path, const std::string& operationType,
                                const std::string& destination = "");
};

} // namespace cirrovault

#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace cirrovault {

// The bytes and file counts beneath the folders of a WebDAV account, recursively, as
// counted by walks of Depth-1 listings. A server has no cheap way to tell them, and every
// listing names sub-folders whose figures the engine expects, so each folder is counted
// once and then kept current through this store's own changes; a listing of a folder
// costs one request instead of a walk of everything below it.
//
// A walk remembers every folder it passes, so a folder held here has every folder below
// it held as well; forgetting a path drops the folders above it (their figures included
// it) and below it together. What other computers store shows in a listing's figures
// once they are counted again: by a look at the folder itself, or when they are older
// than MaxAgeSeconds.
class WebDavFolderTotals {
public:
    using FolderNames = std::vector<std::string>;
    struct Totals {
        uint64_t bytes = 0;
        int32_t files = 0;
        bool operator==(const Totals&) const = default;
    };
    static constexpr double MaxAgeSeconds = 600;

    // The figures of the folder, if held and counted at most MaxAgeSeconds before now
    // (seconds on any steady clock).
    std::optional<Totals> find(const FolderNames& folder, double now) const;
    // The folder was just counted. Folders above it that are held move by the difference
    // from what was held for it.
    void remember(const FolderNames& folder, Totals totals, double now);
    // A file in folder grew by bytes (negative: shrank) and files were added (negative:
    // removed): the folder and those above it move with it.
    void adjust(const FolderNames& folder, int64_t bytes, int32_t files);
    // The folder at from went to to (a copy when keepSource): its figures, and those of
    // the folders below it, go along, and the folders above both move with them. False
    // when its figures are not held (then forget both).
    bool carryFolder(const FolderNames& from, const FolderNames& to, bool keepSource);
    // The folder was removed with everything below it. False when its figures are not
    // held (then forget it).
    bool dropFolder(const FolderNames& folder);
    // Something at path changed in a way not counted: drop it, what is below it and
    // what is above it.
    void forget(const FolderNames& path);
    void clear();

private:
    struct Held {
        Totals totals;
        double countedAt = 0;
    };
    void adjustLocked(FolderNames folder, int64_t bytes, int32_t files);
    // The held entries of folder and below it, keyed by their path below folder.
    std::vector<std::pair<FolderNames, Held>> subtreeLocked(const FolderNames& folder) const;
    void eraseSubtreeLocked(const FolderNames& folder);
    mutable std::mutex mutex_;
    std::map<FolderNames, Held> held_; // guarded by mutex_; sorted, so a subtree is a range
};

} // namespace cirrovault

#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

namespace cirrovault {

// The bytes and file counts of the local store's folders, recursively, without reading
// every file on every listing. What each folder holds directly is remembered with the
// folder's identity and times; a folder whose times have not moved is not read again,
// so the figures of a whole tree cost one status call per folder. Adding, removing or
// renaming an entry moves the folder's times, and the store replaces files by renaming
// finished uploads into place. A folder changed less than a few seconds before it was
// read may change again within the same clock tick, so it is read again next time.
// The store forgets the folders it changes itself (forget) at once.
class LocalFolderTotals {
public:
    struct Totals {
        uint64_t bytes = 0;
        int32_t files = 0;
    };
    using PartSet = std::unordered_set<std::string>; // server paths of unfinished uploads' parts

    // The files beneath localFolder (server path serverFolder), recursively; regular files
    // only, without the ".part" files of the unfinished uploads in parts.
    Totals of(const std::string& localFolder, const std::string& serverFolder,
              const PartSet& parts);
    // The folder at localFolder, and every folder below it, changed: read them again.
    void forget(const std::string& localFolder);
    void clear();
    // Reads again the folders last read while their times were too fresh to be trusted,
    // if they are old enough now: at the end of a session, so that the next one finds
    // every folder it may trust (a run that changed the store otherwise leaves the next
    // one to read all it touched).
    void settle();

    // Kept between processes: what a later process may trust (records of settled
    // folders, keyed by local path) and what went since the last call. Loaded records
    // are checked against the folders' times like any other.
    void takeChanges(std::vector<std::pair<std::string, std::string>>& changed,
                     std::vector<std::string>& gone);
    void load(const std::vector<std::pair<std::string, std::string>>& records);

    // Seconds within which a folder's change may go unseen by its times.
    static constexpr int SettleSeconds = 2;

private:
    struct Stamp {
        uint64_t device = 0;
        uint64_t inode = 0;
        timespec modified{};
        timespec changed{};
        bool operator==(const Stamp& other) const;
    };
    struct Folder {
        Stamp stamp;
        bool settled = false; // its times are old enough to be trusted
        uint64_t bytes = 0;   // regular files directly in it, ".part" files aside
        int32_t files = 0;
        std::vector<std::pair<std::string, uint64_t>> partFiles; // name, size
        std::vector<std::string> children;                       // folder names
    };

    // The folder's reading, made again unless the one held is trusted and current;
    // end() when the folder cannot be read (then forgotten).
    std::map<std::string, Folder>::iterator currentLocked(const std::string& localFolder);
    void addLocked(const std::string& localFolder, const std::string& serverFolder,
                   const PartSet& parts, Totals& totals);
    bool readLocked(const std::string& localFolder, const Stamp& stamp, Folder& folder);
    void eraseLocked(std::map<std::string, Folder>::iterator it);
    void forgetLocked(const std::string& localFolder);
    static std::string encode(const Folder& folder);
    static bool decode(const std::string& record, Folder& folder);

    std::mutex mutex_;
    std::map<std::string, Folder> folders_; // guarded by mutex_; local path → contents
    std::set<std::string> changed_;         // guarded by mutex_; settled since takeChanges
    std::set<std::string> gone_;            // guarded by mutex_; dropped since takeChanges
};

} // namespace cirrovault

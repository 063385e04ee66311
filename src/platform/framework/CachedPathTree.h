#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/framework/PathTreeController.h"
#include "platform/store/StoreBackend.h"

namespace cirrovault {

// The path-tree cache over one backend. Each folder is listed once; FindPath and
// GetSubList then answer from memory. Changes made through TransferApiUtil are applied
// to the cached listings (the entry itself and the sizes and file counts of the folders
// above it), so an upload walk keeps reading from memory. Where a change cannot be
// applied exactly, the listings that would be stale are dropped and read again later.
// A change below a folder whose listing is not held is followed by asking the backend
// for that one folder's figures, so the listings above it (the root's among them) stay.
//
// Folders the backend did not find are remembered too, so a first backup asks once per
// missing folder, not once per new file; storing anything at or below such a folder (or
// forgetting it) ends that.
//
// One lock covers the cache and the listings it makes, so two threads asking for the
// same folder cause one listing. Folders named by prefetchFolders are listed ahead, on a
// thread of the cache's own and outside the lock, while the caller goes on with other
// work (a scan reading its local folders); a lookup that needs such a folder waits for
// its listing. A listing that raced a change to the cache is thrown away. The PathTreeController calls accept any server path
// StorePath accepts; cachedItem, forget and the note functions take canonical ones.
class CachedPathTree : public PathTreeController {
public:
    CachedPathTree() = default;
    ~CachedPathTree() override;
    CachedPathTree(const CachedPathTree&) = delete;
    CachedPathTree& operator=(const CachedPathTree&) = delete;

    bool FindPath(const std::string& path, PathInfo& outPathInfo, bool isShowProgress) override;
    int64_t RefreshSvrPath(const std::string& path) override;
    int64_t GetSubList(const std::string& path, std::vector<PathInfo>& outArray,
                       bool isShowProgress, bool isRecursion) override;
    // Kept for the host; the cache's own calls are short enough to show no dialog.
    void setLoopDelegate(CLoopItem* loopItem) override { loopItem_ = loopItem; }
    void prefetchFolders(const std::vector<std::string>& paths) override;

    void setBackend(std::shared_ptr<StoreBackend> backend); // also forgets everything
    void clear();
    // Ends the prefetch thread and waits for it (a later prefetch starts another): the
    // tree outlives the session, so a log-off joins it before the process ends.
    void stopPrefetching();

    // What the cache holds for the path, without asking the backend.
    std::optional<StoreItem> cachedItem(const std::string& path);
    // The path now holds item (a file stored, a folder made, copied or moved here).
    void noteStored(const std::string& path, const StoreItem& item);
    // The folder at path was just made, so it is empty: its listing needs no request.
    void noteFolderMade(const std::string& path);
    void noteRemoved(const std::string& path);
    void noteRenamed(const std::string& path, const std::string& newName);
    void noteFolderInfo(const std::string& path, const std::string& description,
                        const std::string& caption);
    // The path changed in a way the cache cannot follow: forget it, what lies beneath,
    // and the listings holding the sizes of the folders above it.
    void forget(const std::string& path);

private:
    // What the cache keeps of one entry. A folder's description and caption, rare and
    // mostly empty, are held apart, so that a file's entry (the cache holds every stored
    // file of the walk) takes little more than half of a StoreItem.
    struct Entry {
        struct Texts {
            std::string description;
            std::string caption;
        };
        std::string name;
        uint64_t size = 0;
        Date modifyTime;
        int32_t fileCount = 0;
        uint32_t mode = 0;
        bool isFolder = false;
        std::shared_ptr<const Texts> texts; // only when there is a text

        explicit Entry(const StoreItem& item);
        StoreItem item() const;
        void setTexts(const std::string& description, const std::string& caption);
    };
    using Listing = std::vector<Entry>;

    static Listing toListing(std::vector<StoreItem>& items);
    static PathInfo toPathInfo(const std::string& path, const Entry& entry);

    // The folder's listing, read from the backend when not cached; waits (releasing the
    // lock) for a listing under way on the prefetch thread. Caller holds lock.
    int64_t listingLocked(const std::string& folder, Listing*& out,
                          std::unique_lock<std::mutex>& lock);
    int64_t collectLocked(const std::string& folder, bool recursive, std::vector<PathInfo>& out,
                          std::unique_lock<std::mutex>& lock);
    // Whether the nearest held listing above shows the folder absent (then remembered).
    bool absentFromListingAboveLocked(const std::string& folder);
    void prefetchLoop();
    Entry* entryLocked(const std::string& path);
    void adjustAncestorsLocked(const std::string& folder, int64_t sizeDelta, int64_t filesDelta);
    void dropSubtreeLocked(const std::string& path);
    void dropAncestorListingsLocked(const std::string& path);
    // Something below folder changed and folder's listing is not held: brings the
    // figures of the listings above it up to date from the backend, or drops them.
    void followUncachedChangeLocked(const std::string& folder);
    bool knownMissingLocked(const std::string& folder) const;
    // path and everything that may now exist on the way to it or below it.
    void forgetMissingLocked(const std::string& path);

    std::mutex mutex_;
    std::shared_ptr<StoreBackend> backend_;  // guarded by mutex_
    std::map<std::string, Listing> listings_; // guarded by mutex_; canonical folder → entries
    std::set<std::string> missing_;           // guarded by mutex_; folders found absent
    std::atomic<CLoopItem*> loopItem_{nullptr};

    uint64_t changes_ = 0;                   // guarded by mutex_; counts changes to the cache
    std::deque<std::string> prefetchQueue_;  // guarded by mutex_
    std::set<std::string> inFlight_;         // guarded by mutex_; being listed ahead
    bool prefetcherRunning_ = false;         // guarded by mutex_
    bool stopping_ = false;                  // guarded by mutex_
    std::condition_variable queued_;         // a folder to list ahead, or stopping_
    std::condition_variable landed_;         // a listing ahead ended
    std::thread prefetcher_;
};

} // namespace cirrovault

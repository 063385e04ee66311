#include "platform/framework/CachedPathTree.h"

#include <chrono>
#include <exception>

#include "platform/os/ResultCodes.h"
#include "platform/os/SystemLog.h"
#include "platform/store/StorePath.h"

namespace cirrovault {

namespace {

const std::string Root = "\\";

std::string parentOf(const std::string& path) {
    auto cut = path.find_last_of('\\');
    return cut == 0 || cut == std::string::npos ? Root : path.substr(0, cut);
}

std::string nameOf(const std::string& path) {
    auto cut = path.find_last_of('\\');
    return cut == std::string::npos ? path : path.substr(cut + 1);
}

template <typename Item>
int64_t filesIn(const Item& item) {
    return item.isFolder ? item.fileCount : 1;
}

} // namespace

CachedPathTree::Entry::Entry(const StoreItem& item)
    : name(item.name), size(item.size), modifyTime(item.modifyTime), fileCount(item.fileCount),
      mode(item.mode), isFolder(item.isFolder) {
    setTexts(item.description, item.caption);
}

StoreItem CachedPathTree::Entry::item() const {
    StoreItem item;
    item.name = name;
    item.isFolder = isFolder;
    item.size = size;
    item.fileCount = fileCount;
    item.modifyTime = modifyTime;
    item.mode = mode;
    if (texts) {
        item.description = texts->description;
        item.caption = texts->caption;
    }
    return item;
}

void CachedPathTree::Entry::setTexts(const std::string& description, const std::string& caption) {
    texts = description.empty() && caption.empty()
                ? nullptr
                : std::make_shared<const Texts>(Texts{description, caption});
}

CachedPathTree::Listing CachedPathTree::toListing(std::vector<StoreItem>& items) {
    Listing listing;
    listing.reserve(items.size());
    for (StoreItem& item : items) {
        listing.emplace_back(item);
        item = StoreItem(); // what is held twice at once stays small
    }
    return listing;
}

PathInfo CachedPathTree::toPathInfo(const std::string& path, const Entry& entry) {
    PathInfo info;
    info.name = path == Root ? "" : nameOf(path);
    info.path = path;
    info.bFolder = entry.isFolder;
    info.iSize = entry.size;
    info.iFiles = entry.isFolder ? entry.fileCount : 0;
    info.modifyTime = entry.modifyTime;
    if (entry.texts) {
        info.description = entry.texts->description;
        info.caption = entry.texts->caption;
    }
    return info;
}

CachedPathTree::~CachedPathTree() {
    stopPrefetching();
}

void CachedPathTree::stopPrefetching() {
    std::thread finished;
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        prefetchQueue_.clear();
        finished = std::move(prefetcher_);
    }
    queued_.notify_all();
    if (finished.joinable())
        finished.join();
    std::lock_guard lock(mutex_);
    stopping_ = false;
}

void CachedPathTree::setBackend(std::shared_ptr<StoreBackend> backend) {
    stopPrefetching();
    std::lock_guard lock(mutex_);
    ++changes_;
    backend_ = std::move(backend);
    listings_.clear();
    missing_.clear();
}

void CachedPathTree::clear() {
    std::lock_guard lock(mutex_);
    ++changes_;
    prefetchQueue_.clear();
    listings_.clear();
    missing_.clear();
}

void CachedPathTree::prefetchFolders(const std::vector<std::string>& paths) {
    try {
        std::vector<std::string> folders;
        for (const auto& path : paths) {
            if (auto canonical = StorePath::normalize(path))
                folders.push_back(std::move(*canonical));
        }
        std::thread ended;
        {
            std::lock_guard lock(mutex_);
            if (!backend_ || stopping_ || folders.empty())
                return;
            // In front: a walk wants what it named last first (depth first).
            prefetchQueue_.insert(prefetchQueue_.begin(), folders.begin(), folders.end());
            if (!prefetcherRunning_) {
                ended = std::move(prefetcher_); // a thread that ended when it had no work
                prefetcherRunning_ = true;
                prefetcher_ = std::thread([this] { prefetchLoop(); });
            }
        }
        queued_.notify_one();
        if (ended.joinable())
            ended.join();
    } catch (const std::exception&) {
        SystemLog::write("Error: PathTreeController::prefetchFolders()");
    }
}

// Lists queued folders until none has come for a while.
void CachedPathTree::prefetchLoop() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        if (prefetchQueue_.empty()) {
            if (!queued_.wait_for(lock, std::chrono::seconds(2),
                                  [this] { return stopping_ || !prefetchQueue_.empty(); }))
                break;
            continue;
        }
        std::string folder = std::move(prefetchQueue_.front());
        prefetchQueue_.pop_front();
        if (!backend_ || listings_.count(folder) || inFlight_.count(folder) ||
            knownMissingLocked(folder) || absentFromListingAboveLocked(folder))
            continue;
        inFlight_.insert(folder);
        std::shared_ptr<StoreBackend> backend = backend_;
        const uint64_t changesBefore = changes_;
        lock.unlock();
        std::vector<StoreItem> items;
        int64_t code = ResultCode::Failure;
        try {
            code = backend->list(folder, items);
        } catch (const std::exception&) {
            SystemLog::write("Error: PathTreeController::prefetchFolders()");
        }
        lock.lock();
        inFlight_.erase(folder);
        if (changes_ == changesBefore && !listings_.count(folder)) {
            if (code == ResultCode::Success)
                listings_.emplace(folder, toListing(items));
            else if (code == ResultCode::NotFound)
                missing_.insert(folder);
        }
        landed_.notify_all();
    }
    prefetcherRunning_ = false;
}

bool CachedPathTree::absentFromListingAboveLocked(const std::string& folder) {
    // The nearest held listing above already tells whether the way down is there.
    for (std::string at = folder; at != Root; at = parentOf(at)) {
        auto above = listings_.find(parentOf(at));
        if (above == listings_.end())
            continue;
        std::string name = nameOf(at);
        bool present = false;
        for (const Entry& item : above->second)
            present = present || (item.isFolder && item.name == name);
        if (!present) {
            missing_.insert(at);
            return true;
        }
        return false;
    }
    return false;
}

int64_t CachedPathTree::listingLocked(const std::string& folder, Listing*& out,
                                      std::unique_lock<std::mutex>& lock) {
    landed_.wait(lock, [&] { return !inFlight_.count(folder); });
    auto it = listings_.find(folder);
    if (it != listings_.end()) {
        out = &it->second;
        return ResultCode::Success;
    }
    if (knownMissingLocked(folder) || absentFromListingAboveLocked(folder))
        return ResultCode::NotFound;
    if (!backend_)
        return ResultCode::NoService;
    std::vector<StoreItem> items;
    int64_t code = backend_->list(folder, items);
    if (code == ResultCode::NotFound)
        missing_.insert(folder);
    if (code != ResultCode::Success)
        return code;
    out = &listings_.emplace(folder, toListing(items)).first->second;
    return ResultCode::Success;
}

bool CachedPathTree::FindPath(const std::string& path, PathInfo& outPathInfo, bool) {
    try {
        auto canonical = StorePath::normalize(path);
        if (!canonical)
            return false;
        std::unique_lock lock(mutex_);
        if (*canonical == Root) {
            StoreItem item;
            if (!backend_ || backend_->stat(Root, item) != ResultCode::Success)
                return false;
            outPathInfo = toPathInfo(Root, Entry(item));
            return true;
        }
        Listing* listing = nullptr;
        if (listingLocked(parentOf(*canonical), listing, lock) != ResultCode::Success)
            return false;
        std::string name = nameOf(*canonical);
        for (const Entry& item : *listing) {
            if (item.name == name) {
                outPathInfo = toPathInfo(*canonical, item);
                return true;
            }
        }
        return false;
    } catch (const std::exception&) {
        SystemLog::write("Error: PathTreeController::FindPath()");
        return false;
    }
}

int64_t CachedPathTree::RefreshSvrPath(const std::string& path) {
    try {
        auto canonical = StorePath::normalize(path);
        if (!canonical)
            return ResultCode::BadPath;
        std::unique_lock lock(mutex_);
        ++changes_;
        dropSubtreeLocked(*canonical);
        dropAncestorListingsLocked(*canonical);
        forgetMissingLocked(*canonical);
        if (!backend_)
            return ResultCode::NoService;
        // A folder is read afresh and its listing kept for what follows; only a file (or
        // nothing) is looked at on its own, since a folder's own figures may cost a walk.
        Listing* listing = nullptr;
        int64_t code = listingLocked(*canonical, listing, lock);
        if (code != ResultCode::NotFound)
            return code;
        StoreItem item;
        code = backend_->stat(*canonical, item);
        if (code == ResultCode::Success)
            missing_.erase(*canonical); // a file: not a missing folder
        return code;
    } catch (const std::exception&) {
        SystemLog::write("Error: PathTreeController::RefreshSvrPath()");
        return ResultCode::Failure;
    }
}

int64_t CachedPathTree::collectLocked(const std::string& folder, bool recursive,
                                      std::vector<PathInfo>& out,
                                      std::unique_lock<std::mutex>& lock) {
    Listing* listing = nullptr;
    int64_t code = listingLocked(folder, listing, lock);
    if (code != ResultCode::Success)
        return code;
    // Copied: listing further folders below may add to listings_, and the entries are
    // read while that happens.
    Listing items = *listing;
    for (const Entry& item : items) {
        std::string child = StorePath::child(folder, item.name);
        out.push_back(toPathInfo(child, item));
        if (recursive && item.isFolder) {
            code = collectLocked(child, true, out, lock);
            if (code != ResultCode::Success)
                return code;
        }
    }
    return ResultCode::Success;
}

int64_t CachedPathTree::GetSubList(const std::string& path, std::vector<PathInfo>& outArray, bool,
                                   bool isRecursion) {
    outArray.clear();
    try {
        auto canonical = StorePath::normalize(path);
        if (!canonical)
            return ResultCode::BadPath;
        std::unique_lock lock(mutex_);
        int64_t code = collectLocked(*canonical, isRecursion, outArray, lock);
        if (code != ResultCode::Success)
            outArray.clear();
        return code;
    } catch (const std::exception&) {
        SystemLog::write("Error: PathTreeController::GetSubList()");
        outArray.clear();
        return ResultCode::Failure;
    }
}

CachedPathTree::Entry* CachedPathTree::entryLocked(const std::string& path) {
    if (path == Root)
        return nullptr;
    auto it = listings_.find(parentOf(path));
    if (it == listings_.end())
        return nullptr;
    std::string name = nameOf(path);
    for (Entry& item : it->second) {
        if (item.name == name)
            return &item;
    }
    return nullptr;
}

void CachedPathTree::adjustAncestorsLocked(const std::string& folder, int64_t sizeDelta,
                                           int64_t filesDelta) {
    if (sizeDelta == 0 && filesDelta == 0)
        return;
    for (std::string at = folder; at != Root; at = parentOf(at)) {
        auto it = listings_.find(parentOf(at));
        if (it == listings_.end())
            continue;
        if (Entry* entry = entryLocked(at)) {
            entry->size = static_cast<uint64_t>(static_cast<int64_t>(entry->size) + sizeDelta);
            entry->fileCount = static_cast<int32_t>(entry->fileCount + filesDelta);
        } else {
            listings_.erase(it); // does not know a folder that exists: read it again
        }
    }
}

void CachedPathTree::dropSubtreeLocked(const std::string& path) {
    for (auto it = listings_.lower_bound(path); it != listings_.end();) {
        if (!StorePath::isSameOrInside(it->first, path)) {
            if (path != Root && it->first.compare(0, path.size(), path) != 0)
                break; // sorted: nothing further down starts with the path
            ++it;
            continue;
        }
        it = listings_.erase(it);
    }
}

void CachedPathTree::dropAncestorListingsLocked(const std::string& path) {
    if (path == Root)
        return;
    for (std::string at = parentOf(path);; at = parentOf(at)) {
        listings_.erase(at);
        if (at == Root)
            break;
    }
}

void CachedPathTree::followUncachedChangeLocked(const std::string& folder) {
    // The highest folder on the way up whose listing is not held, below one that is.
    std::string child = folder;
    std::string above = parentOf(folder);
    if (folder == Root)
        return;
    while (listings_.find(above) == listings_.end()) {
        if (above == Root)
            return; // no listing above holds figures of this part of the tree
        child = above;
        above = parentOf(above);
    }
    StoreItem now;
    if (!backend_ || backend_->stat(child, now) != ResultCode::Success || !now.isFolder) {
        dropAncestorListingsLocked(folder);
        return;
    }
    now.name = nameOf(child);
    int64_t sizeDelta = static_cast<int64_t>(now.size);
    int64_t filesDelta = filesIn(now);
    if (Entry* entry = entryLocked(child)) {
        sizeDelta -= static_cast<int64_t>(entry->size);
        filesDelta -= filesIn(*entry);
        *entry = Entry(now);
    } else {
        listings_[above].emplace_back(now);
    }
    adjustAncestorsLocked(above, sizeDelta, filesDelta);
}

bool CachedPathTree::knownMissingLocked(const std::string& folder) const {
    if (missing_.empty())
        return false;
    for (std::string at = folder;; at = parentOf(at)) {
        if (missing_.count(at))
            return true;
        if (at == Root)
            return false;
    }
}

void CachedPathTree::forgetMissingLocked(const std::string& path) {
    if (missing_.empty())
        return;
    if (path == Root) {
        missing_.clear();
        return;
    }
    for (std::string at = path; at != Root; at = parentOf(at))
        missing_.erase(at);
    std::string below = path + "\\";
    for (auto it = missing_.lower_bound(below);
         it != missing_.end() && it->compare(0, below.size(), below) == 0;)
        it = missing_.erase(it);
}

std::optional<StoreItem> CachedPathTree::cachedItem(const std::string& path) {
    std::lock_guard lock(mutex_);
    if (Entry* entry = entryLocked(path))
        return entry->item();
    return std::nullopt;
}

void CachedPathTree::noteStored(const std::string& path, const StoreItem& item) {
    std::lock_guard lock(mutex_);
    ++changes_;
    if (path == Root)
        return;
    forgetMissingLocked(path);
    std::string parent = parentOf(path);
    auto it = listings_.find(parent);
    if (it == listings_.end()) {
        // The old entry is unknown: the figures above come from the backend instead.
        followUncachedChangeLocked(parent);
        dropSubtreeLocked(path);
        return;
    }
    Entry stored(item);
    stored.name = nameOf(path);
    int64_t sizeDelta = static_cast<int64_t>(stored.size);
    int64_t filesDelta = filesIn(stored);
    if (Entry* entry = entryLocked(path)) {
        sizeDelta -= static_cast<int64_t>(entry->size);
        filesDelta -= filesIn(*entry);
        *entry = std::move(stored);
    } else {
        it->second.push_back(std::move(stored));
    }
    adjustAncestorsLocked(parent, sizeDelta, filesDelta);
    dropSubtreeLocked(path);
}

void CachedPathTree::noteFolderMade(const std::string& path) {
    std::lock_guard lock(mutex_);
    ++changes_;
    Entry* entry = entryLocked(path);
    if (entry && entry->isFolder && entry->fileCount == 0)
        listings_.try_emplace(path);
}

void CachedPathTree::noteRemoved(const std::string& path) {
    std::lock_guard lock(mutex_);
    ++changes_;
    std::string parent = parentOf(path);
    auto it = listings_.find(parent);
    if (path != Root && it == listings_.end()) {
        followUncachedChangeLocked(parent);
    } else if (Entry* entry = entryLocked(path)) {
        int64_t size = static_cast<int64_t>(entry->size);
        int64_t files = filesIn(*entry);
        it->second.erase(it->second.begin() + (entry - it->second.data()));
        adjustAncestorsLocked(parent, -size, -files);
    }
    dropSubtreeLocked(path);
}

void CachedPathTree::noteRenamed(const std::string& path, const std::string& newName) {
    std::lock_guard lock(mutex_);
    ++changes_;
    if (Entry* entry = entryLocked(path))
        entry->name = newName;
    dropSubtreeLocked(path);
    if (path != Root)
        forgetMissingLocked(StorePath::child(parentOf(path), newName));
}

void CachedPathTree::noteFolderInfo(const std::string& path, const std::string& description,
                                    const std::string& caption) {
    std::lock_guard lock(mutex_);
    ++changes_;
    if (Entry* entry = entryLocked(path))
        entry->setTexts(description, caption);
}

void CachedPathTree::forget(const std::string& path) {
    std::lock_guard lock(mutex_);
    ++changes_;
    dropSubtreeLocked(path);
    dropAncestorListingsLocked(path);
    forgetMissingLocked(path);
}

} // namespace cirrovault

#include "platform/store/webdav/WebDavFolderTotals.h"

#include <algorithm>

namespace cirrovault {

namespace {

using FolderNames = WebDavFolderTotals::FolderNames;

bool isSameOrBelow(const FolderNames& path, const FolderNames& folder) {
    return path.size() >= folder.size() && std::equal(folder.begin(), folder.end(), path.begin());
}

FolderNames parentOf(FolderNames path) {
    path.pop_back();
    return path;
}

} // namespace

std::optional<WebDavFolderTotals::Totals> WebDavFolderTotals::find(const FolderNames& folder,
                                                                   double now) const {
    std::lock_guard lock(mutex_);
    auto it = held_.find(folder);
    if (it == held_.end() || now - it->second.countedAt > MaxAgeSeconds)
        return std::nullopt;
    return it->second.totals;
}

void WebDavFolderTotals::remember(const FolderNames& folder, Totals totals, double now) {
    std::lock_guard lock(mutex_);
    auto [it, added] = held_.try_emplace(folder, Held{totals, now});
    if (added)
        return; // nothing above is held without it: the folders above have not been counted
    const Totals before = it->second.totals;
    it->second = {totals, now};
    if (!folder.empty())
        adjustLocked(parentOf(folder),
                     static_cast<int64_t>(totals.bytes) - static_cast<int64_t>(before.bytes),
                     totals.files - before.files);
}

void WebDavFolderTotals::adjust(const FolderNames& folder, int64_t bytes, int32_t files) {
    std::lock_guard lock(mutex_);
    adjustLocked(folder, bytes, files);
}

void WebDavFolderTotals::adjustLocked(FolderNames folder, int64_t bytes, int32_t files) {
    if (bytes == 0 && files == 0)
        return;
    for (;; folder.pop_back()) {
        if (auto it = held_.find(folder); it != held_.end()) {
            Totals& totals = it->second.totals;
            totals.bytes = static_cast<uint64_t>(
                std::max<int64_t>(0, static_cast<int64_t>(totals.bytes) + bytes));
            totals.files = std::max(0, totals.files + files);
        }
        if (folder.empty())
            break;
    }
}

std::vector<std::pair<FolderNames, WebDavFolderTotals::Held>>
WebDavFolderTotals::subtreeLocked(const FolderNames& folder) const {
    std::vector<std::pair<FolderNames, Held>> below;
    for (auto it = held_.lower_bound(folder); it != held_.end() && isSameOrBelow(it->first, folder);
         ++it)
        below.emplace_back(FolderNames(it->first.begin() + folder.size(), it->first.end()),
                           it->second);
    return below;
}

void WebDavFolderTotals::eraseSubtreeLocked(const FolderNames& folder) {
    auto it = held_.lower_bound(folder);
    while (it != held_.end() && isSameOrBelow(it->first, folder))
        it = held_.erase(it);
}

bool WebDavFolderTotals::carryFolder(const FolderNames& from, const FolderNames& to,
                                     bool keepSource) {
    std::lock_guard lock(mutex_);
    auto source = held_.find(from);
    if (from.empty() || to.empty() || source == held_.end())
        return false;
    const Totals totals = source->second.totals;
    auto below = subtreeLocked(from);
    if (!keepSource) {
        eraseSubtreeLocked(from);
        adjustLocked(parentOf(from), -static_cast<int64_t>(totals.bytes), -totals.files);
    }
    eraseSubtreeLocked(to);
    for (auto& [relative, held] : below) {
        FolderNames path = to;
        path.insert(path.end(), relative.begin(), relative.end());
        held_.insert_or_assign(std::move(path), held);
    }
    adjustLocked(parentOf(to), static_cast<int64_t>(totals.bytes), totals.files);
    return true;
}

bool WebDavFolderTotals::dropFolder(const FolderNames& folder) {
    std::lock_guard lock(mutex_);
    auto it = held_.find(folder);
    if (folder.empty() || it == held_.end())
        return false;
    const Totals totals = it->second.totals;
    eraseSubtreeLocked(folder);
    adjustLocked(parentOf(folder), -static_cast<int64_t>(totals.bytes), -totals.files);
    return true;
}

void WebDavFolderTotals::forget(const FolderNames& path) {
    std::lock_guard lock(mutex_);
    eraseSubtreeLocked(path);
    for (FolderNames above = path; !above.empty();) {
        above.pop_back();
        held_.erase(above);
    }
}

void WebDavFolderTotals::clear() {
    std::lock_guard lock(mutex_);
    held_.clear();
}

} // namespace cirrovault

#include "platform/store/local/LocalFolderTotals.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string_view>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/store/StorePath.h"

namespace cirrovault {

namespace {

constexpr std::string_view PartSuffix = ".part";

bool endsWithPart(std::string_view name) {
    return name.size() > PartSuffix.size() &&
           name.substr(name.size() - PartSuffix.size()) == PartSuffix;
}

bool before(const timespec& a, const timespec& b) {
    return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

} // namespace

bool LocalFolderTotals::Stamp::operator==(const Stamp& other) const {
    return device == other.device && inode == other.inode &&
           modified.tv_sec == other.modified.tv_sec &&
           modified.tv_nsec == other.modified.tv_nsec &&
           changed.tv_sec == other.changed.tv_sec && changed.tv_nsec == other.changed.tv_nsec;
}

LocalFolderTotals::Totals LocalFolderTotals::of(const std::string& localFolder,
                                                const std::string& serverFolder,
                                                const PartSet& parts) {
    std::lock_guard lock(mutex_);
    Totals totals;
    addLocked(localFolder, serverFolder, parts, totals);
    return totals;
}

void LocalFolderTotals::eraseLocked(std::map<std::string, Folder>::iterator it) {
    changed_.erase(it->first);
    gone_.insert(it->first);
    folders_.erase(it);
}

void LocalFolderTotals::forget(const std::string& localFolder) {
    std::lock_guard lock(mutex_);
    forgetLocked(localFolder);
}

void LocalFolderTotals::forgetLocked(const std::string& localFolder) {
    if (auto it = folders_.find(localFolder); it != folders_.end())
        eraseLocked(it);
    const std::string below = localFolder + "/";
    for (auto it = folders_.lower_bound(below);
         it != folders_.end() && it->first.compare(0, below.size(), below) == 0;) {
        auto next = std::next(it);
        eraseLocked(it);
        it = next;
    }
}

void LocalFolderTotals::clear() {
    std::lock_guard lock(mutex_);
    folders_.clear();
    changed_.clear();
    gone_.clear();
}

// "device/inode/mtime s/ns/ctime s/ns/bytes/files/children/name.../parts/name/size...":
// a name never holds a "/".
std::string LocalFolderTotals::encode(const Folder& folder) {
    std::string out;
    auto add = [&](const std::string& field) {
        out += field;
        out += '/';
    };
    for (auto value : {folder.stamp.device, folder.stamp.inode,
                       static_cast<uint64_t>(folder.stamp.modified.tv_sec),
                       static_cast<uint64_t>(folder.stamp.modified.tv_nsec),
                       static_cast<uint64_t>(folder.stamp.changed.tv_sec),
                       static_cast<uint64_t>(folder.stamp.changed.tv_nsec), folder.bytes,
                       static_cast<uint64_t>(folder.files),
                       static_cast<uint64_t>(folder.children.size())})
        add(std::to_string(value));
    for (const auto& child : folder.children)
        add(child);
    add(std::to_string(folder.partFiles.size()));
    for (const auto& [name, size] : folder.partFiles) {
        add(name);
        add(std::to_string(size));
    }
    return out;
}

bool LocalFolderTotals::decode(const std::string& record, Folder& folder) {
    std::vector<std::string> fields;
    size_t start = 0;
    for (size_t cut; (cut = record.find('/', start)) != std::string::npos; start = cut + 1)
        fields.push_back(record.substr(start, cut - start));
    size_t at = 0;
    auto number = [&](uint64_t& value) {
        if (at >= fields.size() || fields[at].empty() ||
            fields[at].find_first_not_of("0123456789") != std::string::npos)
            return false;
        value = std::stoull(fields[at++]);
        return true;
    };
    uint64_t v[9];
    for (auto& value : v)
        if (!number(value))
            return false;
    folder = {};
    folder.stamp = {v[0], v[1], {static_cast<time_t>(v[2]), static_cast<long>(v[3])},
                    {static_cast<time_t>(v[4]), static_cast<long>(v[5])}};
    folder.bytes = v[6];
    folder.files = static_cast<int32_t>(v[7]);
    if (v[8] > fields.size())
        return false;
    for (uint64_t i = 0; i < v[8]; ++i) {
        if (at >= fields.size())
            return false;
        folder.children.push_back(fields[at++]);
    }
    uint64_t parts = 0;
    if (!number(parts) || parts > fields.size())
        return false;
    for (uint64_t i = 0; i < parts; ++i) {
        uint64_t size = 0;
        if (at >= fields.size())
            return false;
        std::string name = fields[at++];
        if (!number(size))
            return false;
        folder.partFiles.emplace_back(std::move(name), size);
    }
    folder.settled = true;
    return at == fields.size();
}

void LocalFolderTotals::takeChanges(std::vector<std::pair<std::string, std::string>>& changed,
                                    std::vector<std::string>& gone) {
    std::lock_guard lock(mutex_);
    changed.clear();
    gone.assign(gone_.begin(), gone_.end());
    for (const auto& path : changed_)
        if (auto it = folders_.find(path); it != folders_.end() && it->second.settled)
            changed.emplace_back(path, encode(it->second));
    changed_.clear();
    gone_.clear();
}

void LocalFolderTotals::load(const std::vector<std::pair<std::string, std::string>>& records) {
    std::lock_guard lock(mutex_);
    for (const auto& [path, record] : records) {
        Folder folder;
        if (decode(record, folder))
            folders_.try_emplace(path, std::move(folder));
    }
}

bool LocalFolderTotals::readLocked(const std::string& localFolder, const Stamp& stamp,
                                   Folder& folder) {
    int fd = ::open(localFolder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return false;
    DIR* dir = ::fdopendir(fd);
    if (!dir) {
        ::close(fd);
        return false;
    }
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    folder = {};
    folder.stamp = stamp;
    while (struct dirent* entry = ::readdir(dir)) {
        const char* name = entry->d_name;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0)
            continue;
        if (entry->d_type == DT_DIR) {
            folder.children.emplace_back(name);
            continue;
        }
        if (entry->d_type != DT_REG && entry->d_type != DT_UNKNOWN)
            continue; // links and special files hold none of the account's bytes
        struct stat st {};
        if (::fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0)
            continue; // gone meanwhile
        if (S_ISDIR(st.st_mode)) {
            folder.children.emplace_back(name);
        } else if (S_ISREG(st.st_mode)) {
            auto size = static_cast<uint64_t>(st.st_size);
            if (endsWithPart(name)) {
                folder.partFiles.emplace_back(name, size);
            } else {
                folder.bytes += size;
                ++folder.files;
            }
        }
    }
    ::closedir(dir);
    // Changed within the last ticks of the clock: a change in the same tick would leave
    // the times as they are, so this reading is not trusted next time. Any later change
    // of the entries sets the modification time to its own now.
    timespec settledBy = now;
    settledBy.tv_sec -= SettleSeconds;
    folder.settled = before(stamp.modified, settledBy);
    return true;
}

std::map<std::string, LocalFolderTotals::Folder>::iterator
LocalFolderTotals::currentLocked(const std::string& localFolder) {
    struct stat st {};
    if (::lstat(localFolder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        if (auto gone = folders_.find(localFolder); gone != folders_.end())
            eraseLocked(gone);
        return folders_.end();
    }
    Stamp stamp{static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino), st.st_mtim,
                st.st_ctim};
    auto it = folders_.find(localFolder);
    if (it != folders_.end() && it->second.settled && it->second.stamp == stamp)
        return it;
    Folder folder;
    if (!readLocked(localFolder, stamp, folder)) {
        if (it != folders_.end())
            eraseLocked(it);
        return folders_.end();
    }
    if (it != folders_.end()) {
        // Folders that went since the last reading take what was below them along.
        for (const std::string& child : it->second.children)
            if (std::find(folder.children.begin(), folder.children.end(), child) ==
                folder.children.end())
                forgetLocked(localFolder + "/" + child);
    }
    it = folders_.insert_or_assign(localFolder, std::move(folder)).first;
    if (it->second.settled)
        changed_.insert(localFolder);
    return it;
}

void LocalFolderTotals::settle() {
    std::lock_guard lock(mutex_);
    std::vector<std::string> unsettled;
    for (const auto& [path, folder] : folders_)
        if (!folder.settled)
            unsettled.push_back(path);
    for (const auto& path : unsettled)
        currentLocked(path); // a folder gone meanwhile is dropped, with what was below it
}

void LocalFolderTotals::addLocked(const std::string& localFolder, const std::string& serverFolder,
                                  const PartSet& parts, Totals& totals) {
    auto it = currentLocked(localFolder);
    if (it == folders_.end())
        return;
    const Folder& folder = it->second;
    totals.bytes += folder.bytes;
    totals.files += folder.files;
    for (const auto& [name, size] : folder.partFiles) {
        if (!parts.count(StorePath::child(serverFolder, name))) { // a user's own file that happens to end in ".part"
            totals.bytes += size;
            ++totals.files;
        }
    }
    // The walk below adds and drops other folders' entries only; a map keeps this one
    // where it is.
    for (const std::string& child : folder.children)
        addLocked(localFolder + "/" + child, StorePath::child(serverFolder, child), parts, totals);
}

} // namespace cirrovault

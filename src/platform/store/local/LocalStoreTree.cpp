// Mapping server paths onto the account's folder, and the operations on the tree.
#include <algorithm>
#include <cerrno>
#include <exception>

#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/os/ResultCodes.h"
#include "platform/os/SystemLog.h"
#include "platform/store/StorePath.h"
#include "platform/store/local/LocalStore.h"

namespace cirrovault {

namespace {

constexpr std::string_view PartSuffix = StorePath::PartSuffix;

bool endsWithPart(const std::string& path) {
    return path.size() > PartSuffix.size() &&
           path.compare(path.size() - PartSuffix.size(), PartSuffix.size(), PartSuffix) == 0;
}

FileStatus statusFrom(const struct stat& st) {
    FileStatus s;
    s.type = S_ISREG(st.st_mode)   ? FileType::Regular
             : S_ISDIR(st.st_mode) ? FileType::Directory
             : S_ISLNK(st.st_mode) ? FileType::SymbolicLink
                                   : FileType::Other;
    s.size = static_cast<uint64_t>(st.st_size);
    s.modifyTime = Date(static_cast<double>(st.st_mtim.tv_sec) + st.st_mtim.tv_nsec / 1e9);
    s.changeTime = Date(static_cast<double>(st.st_ctim.tv_sec) + st.st_ctim.tv_nsec / 1e9);
    s.mode = st.st_mode;
    s.device = st.st_dev;
    s.inode = st.st_ino;
    return s;
}

std::string lastName(const std::string& serverPath) {
    return serverPath == "\\" ? std::string() : serverPath.substr(serverPath.rfind('\\') + 1);
}

} // namespace

// The common case in one lookup of the folder and one of the name: the folder opened
// beneath the account's root with links refused on the way. Nothing when that cannot
// answer (a missing folder, a link, an old kernel): the walk in locate then says why.
std::optional<int64_t> LocalStore::locateBelowFolder(const Account& account,
                                                     const std::vector<std::string>& names,
                                                     const std::string& path,
                                                     Location& location) {
    std::string folder;
    for (size_t i = 0; i + 1 < names.size(); ++i) {
        if (i)
            folder += '/';
        folder += names[i];
    }
    int fd = FileSystem::openFolderBeneath(account.root->fd, folder);
    if (fd < 0)
        return std::nullopt;
    struct stat st {};
    bool found = ::fstatat(fd, names.back().c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
    ::close(fd);
    if (found) {
        FileStatus status = statusFrom(st);
        if (status.type == FileType::SymbolicLink || status.type == FileType::Other) {
            SystemLog::write("LocalStore: refused path through a link or special file: " + path);
            return ResultCode::BadPath;
        }
        location.status = status;
    }
    location.localPath = account.filesRoot + "/" + folder + "/" + names.back();
    return ResultCode::Success;
}

int64_t LocalStore::locate(const Account& account, const std::string& path, Location& location) {
    location = {};
    auto names = StorePath::split(path);
    if (!names) {
        SystemLog::write("LocalStore: refused malformed path: " + path);
        return ResultCode::BadPath;
    }
    location.serverPath = StorePath::join(*names);
    std::string local = account.filesRoot;
    if (names->empty())
        location.status = FileSystem::linkStatus(local);
    const int rootFd = account.root ? account.root->fd : -1;
    if (rootFd >= 0 && names->size() >= 2) {
        if (auto answer = locateBelowFolder(account, *names, path, location))
            return *answer;
    }
    std::string relative;
    for (size_t i = 0; i < names->size(); ++i) {
        local += '/';
        local += (*names)[i];
        if (!relative.empty())
            relative += '/';
        relative += (*names)[i];
        bool last = i + 1 == names->size();
        std::optional<FileStatus> status;
        if (rootFd < 0) {
            status = FileSystem::linkStatus(local);
        } else if (struct stat st {}; ::fstatat(rootFd, relative.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
            status = statusFrom(st);
        }
        if (!status) {
            if (!last)
                return ResultCode::NotFound;
            break;
        }
        // Links are never followed: one planted in the tree could lead out of the account.
        if (status->type == FileType::SymbolicLink || status->type == FileType::Other) {
            SystemLog::write("LocalStore: refused path through a link or special file: " + path);
            return ResultCode::BadPath;
        }
        if (!last && status->type != FileType::Directory)
            return ResultCode::NotFound;
        if (last)
            location.status = status;
    }
    location.localPath = local;
    return ResultCode::Success;
}

int64_t LocalStore::locateLoggedOn(const std::string& path, Account& account, Location& location) {
    auto current = currentAccount();
    if (!current)
        return ResultCode::NotLoggedOn;
    account = std::move(*current);
    return locate(account, path, location);
}

int64_t LocalStore::locateSourceAndTarget(const std::string& from, const std::string& to,
                                          std::string_view rootRefusal,
                                          std::string_view insideRefusal, Account& account,
                                          Location& source, Location& target) {
    if (int64_t rc = locateLoggedOn(from, account, source); rc != ResultCode::Success)
        return rc;
    if (int64_t rc = locate(account, to, target); rc != ResultCode::Success)
        return rc;
    if (source.serverPath == "\\" || target.serverPath == "\\") {
        SystemLog::write(rootRefusal);
        return ResultCode::BadPath;
    }
    if (!source.status || isUnfinishedUpload(account, source))
        return ResultCode::NotFound;
    if (target.status)
        return ResultCode::AlreadyExists;
    if (StorePath::isSameOrInside(target.serverPath, source.serverPath)) {
        SystemLog::write(std::string(insideRefusal) + to);
        return ResultCode::BadPath;
    }
    return ResultCode::Success;
}

bool LocalStore::isPartOf(const std::string& serverPath, const PartSet& parts) {
    return endsWithPart(serverPath) && parts.count(serverPath) > 0;
}

bool LocalStore::isUnfinishedUpload(const Account& account, const Location& location,
                                    std::string* upload) {
    if (!location.status || location.status->type != FileType::Regular ||
        !endsWithPart(location.serverPath))
        return false;
    const std::string& path = location.serverPath;
    std::string target = path.substr(0, path.size() - PartSuffix.size());
    if (StorePath::partPath(target) == path) {
        std::optional<std::string> tag;
        db_.partTag(account.customerID, target, tag);
        if (!tag)
            return false;
    } else {
        // A shortened part name: its upload is one of those in the same folder.
        std::string folder = path.substr(0, path.rfind('\\'));
        std::unordered_set<std::string> targets;
        db_.partPathsInside(account.customerID, folder.empty() ? "\\" : folder, targets);
        auto found = std::find_if(targets.begin(), targets.end(), [&](const std::string& t) {
            return StorePath::partPath(t) == path;
        });
        if (found == targets.end())
            return false;
        target = *found;
    }
    if (upload)
        *upload = target;
    return true;
}

bool LocalStore::unfinishedUploads(const Account& account, const std::string& folder,
                                   PartSet& parts) {
    std::unordered_set<std::string> targets;
    if (!db_.partPathsInside(account.customerID, folder, targets))
        return false;
    for (const auto& target : targets)
        parts.insert(StorePath::partPath(target));
    return true;
}

LocalStore::Totals LocalStore::totalsOf(const std::string& localFolder,
                                        const std::string& serverFolder,
                                        const PartSet& parts) const {
    LocalFolderTotals::Totals totals = totals_.of(localFolder, serverFolder, parts);
    return Totals{totals.bytes, totals.files};
}

uint32_t LocalStore::storedMode(const Account& account, const std::string& serverPath) {
    std::map<std::string, uint32_t> modes;
    db_.fileModesInside(account.customerID, serverPath, modes);
    auto it = modes.find(serverPath);
    return it == modes.end() ? 0 : it->second;
}

int64_t LocalStore::stat(const std::string& path, StoreItem& item) {
    try {
        item = {};
        Account account;
        Location location;
        if (int64_t rc = locateLoggedOn(path, account, location); rc != ResultCode::Success)
            return rc;
        if (!location.status || isUnfinishedUpload(account, location))
            return ResultCode::NotFound;
        item.name = lastName(location.serverPath);
        item.modifyTime = location.status->modifyTime;
        if (location.status->type == FileType::Directory) {
            PartSet parts;
            LocalFolderInfo info;
            if (!unfinishedUploads(account, location.serverPath, parts) ||
                !db_.folderInfo(account.customerID, location.serverPath, info))
                return ResultCode::Failure;
            Totals totals = totalsOf(location.localPath, location.serverPath, parts);
            item.isFolder = true;
            item.size = totals.bytes;
            item.fileCount = totals.files;
            item.description = info.description;
            item.caption = info.caption;
        } else {
            item.size = location.status->size;
            item.mode = storedMode(account, location.serverPath);
        }
        return ResultCode::Success;
    } catch (const std::exception&) {
        SystemLog::write("Error: LocalStore::stat()");
        return ResultCode::Failure;
    }
}

int64_t LocalStore::list(const std::string& folder, std::vector<StoreItem>& items) {
    try {
        items.clear();
        Account account;
        Location location;
        if (int64_t rc = locateLoggedOn(folder, account, location); rc != ResultCode::Success)
            return rc;
        if (!location.status || location.status->type != FileType::Directory)
            return ResultCode::NotFound;
        PartSet parts;
        std::map<std::string, LocalFolderInfo> infos;
        std::map<std::string, uint32_t> modes;
        if (!unfinishedUploads(account, location.serverPath, parts) ||
            !db_.folderInfosInside(account.customerID, location.serverPath, infos) ||
            !db_.fileModesInside(account.customerID, location.serverPath, modes))
            return ResultCode::Failure;
        // Each entry's status is read relative to the open folder: no walk of the whole
        // path per entry.
        int fd = ::open(location.localPath.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        DIR* dir = fd < 0 ? nullptr : ::fdopendir(fd);
        if (!dir) {
            if (fd >= 0)
                ::close(fd);
            SystemLog::write("Error: LocalStore: the folder cannot be read: " + location.localPath);
            return ResultCode::Failure;
        }
        std::unique_ptr<DIR, int (*)(DIR*)> closer(dir, ::closedir);
        while (struct dirent* entry = ::readdir(dir)) {
            const std::string name = entry->d_name;
            if (name == "." || name == ".." || !StorePath::isValidName(name))
                continue;
            struct stat st {};
            if (::fstatat(fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0)
                continue; // gone meanwhile
            StoreItem item;
            item.name = name;
            item.modifyTime =
                Date(static_cast<double>(st.st_mtim.tv_sec) + st.st_mtim.tv_nsec / 1e9);
            if (S_ISDIR(st.st_mode)) {
                std::string local = location.localPath + "/" + name;
                std::string serverPath = StorePath::child(location.serverPath, name);
                Totals totals = totalsOf(local, serverPath, parts);
                item.isFolder = true;
                item.size = totals.bytes;
                item.fileCount = totals.files;
                if (auto info = infos.find(serverPath); info != infos.end()) {
                    item.description = info->second.description;
                    item.caption = info->second.caption;
                }
            } else if (S_ISREG(st.st_mode) &&
                       (!endsWithPart(name) ||
                        !isPartOf(StorePath::child(location.serverPath, name), parts))) {
                item.size = static_cast<uint64_t>(st.st_size);
                if (auto mode = modes.find(StorePath::child(location.serverPath, name));
                    mode != modes.end())
                    item.mode = mode->second;
            } else {
                continue; // links, special files and unfinished uploads are not the user's files
            }
            items.push_back(std::move(item));
        }
        return ResultCode::Success;
    } catch (const std::exception&) {
        items.clear();
        SystemLog::write("Error: LocalStore::list()");
        return ResultCode::Failure;
    }
}

int64_t LocalStore::makeFolder(const std::string& path, const std::string& description,
                               const std::string& caption) {
    try {
        Account account;
        Location location;
        if (int64_t rc = locateLoggedOn(path, account, location); rc != ResultCode::Success)
            return rc;
        if (location.status)
            return ResultCode::AlreadyExists;
        if (::mkdir(location.localPath.c_str(), 0700) != 0) {
            int error = errno;
            if (error == EEXIST)
                return ResultCode::AlreadyExists;
            SystemLog::write("Error: LocalStore: the folder cannot be made: " + location.localPath +
                             ": " + FileSystem::lastErrorText());
            return error == ENOENT ? ResultCode::NotFound : ResultCode::Failure;
        }
        // Rows left by a folder of that name deleted behind our back must not come back;
        // that drops its description too, so only a folder with one needs another write.
        bool ok = db_.removeTree(account.customerID, location.serverPath) &&
                  ((description.empty() && caption.empty()) ||
                   db_.setFolderInfo(account.customerID, location.serverPath,
                                     LocalFolderInfo{description, caption}));
        return ok ? ResultCode::Success : ResultCode::Failure;
    } catch (const std::exception&) {
        SystemLog::write("Error: LocalStore::makeFolder()");
        return ResultCode::Failure;
    }
}

int64_t LocalStore::setFolderInfo(const std::string& path, const std::string& description,
                                  const std::string& caption) {
    try {
        Account account;
        Location location;
        if (int64_t rc = locateLoggedOn(path, account, location); rc != ResultCode::Success)
            return rc;
        if (!location.status || location.status->type != FileType::Directory)
            return ResultCode::NotFound;
        return db_.setFolderInfo(account.customerID, location.serverPath,
                                 LocalFolderInfo{description, caption})
                   ? ResultCode::Success
                   : ResultCode::Failure;
    } catch (const std::exception&) {
        SystemLog::write("Error: LocalStore::setFolderInfo()");
        return ResultCode::Failure;
    }
}

int64_t LocalStore::move(const std::string& from, const std::string& to) {
    try {
        Account account;
        Location source;
        Location target;
        if (int64_t rc = locateSourceAndTarget(
                from, to, "LocalStore: the account's root cannot move",
                "LocalStore: a folder cannot move into itself: ", account, source, target);
            rc != ResultCode::Success)
            return rc;
        if (!FileSystem::moveItem(source.localPath, target.localPath)) {
            SystemLog::write("Error: LocalStore: cannot move " + source.localPath + ": " +
                             FileSystem::lastErrorText());
            return ResultCode::Failure;
        }
        totals_.forget(source.localPath);
        if (source.status->type == FileType::Directory) {
            if (!db_.moveTree(account.customerID, source.serverPath, target.serverPath))
                return ResultCode::Failure;
        } else if (uint32_t mode = storedMode(account, source.serverPath); mode != 0) {
            // Only the file's own row: an unfinished upload of its name stays where it is.
            if (!db_.setFileMode(account.customerID, target.serverPath, mode) ||
                !db_.setFileMode(account.customerID, source.serverPath, 0))
                return ResultCode::Failure;
        }
        return ResultCode::Success;
    } catch (const std::exception&) {
        SystemLog::write("Error: LocalStore::move()");
        return ResultCode::Failure;
    }
}

int64_t LocalStore::remove(const std::string& path) {
    try {
        Account account;
        Location location;
        if (int64_t rc = locateLoggedOn(path, account, location); rc != ResultCode::Success)
            return rc;
        if (location.serverPath == "\\") {
            SystemLog::write("LocalStore: the account's root cannot be removed");
            return ResultCode::BadPath;
        }
        if (!location.status || isUnfinishedUpload(account, location))
            return ResultCode::NotFound;
        if (location.status->type == FileType::Directory) {
            PartSet parts;
            unfinishedUploads(account, location.serverPath, parts);
            Totals totals = totalsOf(location.localPath, location.serverPath, parts);
            bool removed = FileSystem::removeAll(location.localPath);
            // Rows go even after a partial removal: what is left has no description.
            bool rows = db_.removeTree(account.customerID, location.serverPath);
            if (!removed) {
                SystemLog::write("Error: LocalStore: cannot remove " + location.localPath);
                std::lock_guard lock(mutex_);
                usedBytes_.reset();
                return ResultCode::Failure;
            }
            adjustUsedSpace(-static_cast<int64_t>(totals.bytes));
            return rows ? ResultCode::Success : ResultCode::Failure;
        }
        if (!FileSystem::removeItem(location.localPath)) {
            SystemLog::write("Error: LocalStore: cannot remove " + location.localPath + ": " +
                             FileSystem::lastErrorText());
            return ResultCode::Failure;
        }
        adjustUsedSpace(-static_cast<int64_t>(location.status->size));
        db_.setFileMode(account.customerID, location.serverPath, 0);
        return ResultCode::Success;
    } catch (const std::exception&) {
        SystemLog::write("Error: LocalStore::remove()");
        return ResultCode::Failure;
    }
}

} // namespace cirrovault

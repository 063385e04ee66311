#include "platform/os/FileSystem.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace cirrovault {

namespace {

FileStatus fromStat(const struct stat& st) {
    FileStatus s;
    if (S_ISREG(st.st_mode))
        s.type = FileType::Regular;
    else if (S_ISDIR(st.st_mode))
        s.type = FileType::Directory;
    else if (S_ISLNK(st.st_mode))
        s.type = FileType::SymbolicLink;
    s.size = static_cast<uint64_t>(st.st_size);
    s.modifyTime = Date(static_cast<double>(st.st_mtim.tv_sec) + st.st_mtim.tv_nsec / 1e9);
    s.changeTime = Date(static_cast<double>(st.st_ctim.tv_sec) + st.st_ctim.tv_nsec / 1e9);
    s.mode = st.st_mode;
    s.device = st.st_dev;
    s.inode = st.st_ino;
    return s;
}

std::string parentOf(const std::string& path) {
    auto slash = path.find_last_of('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// Closes the temporary file fd and, when it was written whole, renames it over path and
// syncs the folder so that the rename survives a crash; otherwise the temporary goes.
bool finishAtomicWrite(int fd, const std::string& temp, const std::string& path, bool written) {
    bool ok = (::close(fd) == 0) && written;
    if (!ok || ::rename(temp.c_str(), path.c_str()) != 0) {
        ::unlink(temp.c_str());
        return false;
    }
    int dir = ::open(parentOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        ::fsync(dir);
        ::close(dir);
    }
    return true;
}

} // namespace

std::optional<FileStatus> FileSystem::linkStatus(const std::string& path) {
    struct stat st {};
    if (path.empty() || ::lstat(path.c_str(), &st) != 0)
        return std::nullopt;
    return fromStat(st);
}

std::optional<FileStatus> FileSystem::status(const std::string& path) {
    struct stat st {};
    if (path.empty() || ::stat(path.c_str(), &st) != 0)
        return std::nullopt;
    return fromStat(st);
}

bool FileSystem::exists(const std::string& path) { return linkStatus(path).has_value(); }

bool FileSystem::isRegularFile(const std::string& path) {
    auto s = linkStatus(path);
    return s && s->type == FileType::Regular;
}

bool FileSystem::isDirectory(const std::string& path) {
    auto s = linkStatus(path);
    return s && s->type == FileType::Directory;
}

bool FileSystem::isDirectoryFollowingLinks(const std::string& path) {
    auto s = status(path);
    return s && s->type == FileType::Directory;
}

bool FileSystem::createDirectories(const std::string& path, uint32_t mode) {
    if (path.empty())
        return false;
    if (isDirectoryFollowingLinks(path))
        return true;
    // Each missing component from the top down; a component another process makes at the
    // same moment is as good as ours.
    for (size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
        std::string part = path.substr(0, end);
        if (!part.empty() && part.back() != '/') {
            if (::mkdir(part.c_str(), static_cast<mode_t>(mode)) == 0) {
                // mkdir's mode passes through the umask; the folder must have exactly mode.
                ::chmod(part.c_str(), static_cast<mode_t>(mode));
            } else if (errno != EEXIST) {
                return false;
            }
        }
        if (end == std::string::npos)
            break;
    }
    return isDirectoryFollowingLinks(path);
}

bool FileSystem::createEmptyFile(const std::string& path, uint32_t mode) {
    if (path.empty())
        return false;
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, static_cast<mode_t>(mode));
    if (fd < 0)
        return false;
    bool ok = ::fchmod(fd, static_cast<mode_t>(mode)) == 0;
    ::close(fd);
    return ok;
}

bool FileSystem::setPermissions(const std::string& path, uint32_t mode) {
    auto s = linkStatus(path);
    if (!s || s->type == FileType::SymbolicLink)
        return false;
    return ::chmod(path.c_str(), static_cast<mode_t>(mode & 07777)) == 0;
}

bool FileSystem::moveItem(const std::string& from, const std::string& to) {
    if (from.empty() || to.empty() || exists(to))
        return false;
    return ::rename(from.c_str(), to.c_str()) == 0;
}

bool FileSystem::replaceItem(const std::string& from, const std::string& to) {
    if (from.empty() || to.empty())
        return false;
    return ::rename(from.c_str(), to.c_str()) == 0;
}

bool FileSystem::removeItem(const std::string& path) {
    if (path.empty())
        return false;
    return ::remove(path.c_str()) == 0;
}

bool FileSystem::removeAll(const std::string& path) {
    if (path.empty())
        return false;
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
    return !ec && !exists(path);
}

bool FileSystem::setModifyTime(const std::string& path, Date time) {
    double t = time.timeIntervalSince1970();
    struct timespec times[2];
    times[0].tv_sec = 0;
    times[0].tv_nsec = UTIME_OMIT;
    auto whole = static_cast<time_t>(t);
    if (static_cast<double>(whole) > t)
        --whole;
    times[1].tv_sec = whole;
    times[1].tv_nsec = static_cast<long>((t - static_cast<double>(whole)) * 1e9);
    if (times[1].tv_nsec >= 1'000'000'000)
        times[1].tv_nsec = 999'999'999;
    return ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0;
}

std::optional<std::string> FileSystem::readFile(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return std::nullopt;
    std::string data;
    char buffer[65536];
    for (;;) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            ::close(fd);
            return std::nullopt;
        }
        if (n == 0)
            break;
        data.append(buffer, static_cast<size_t>(n));
    }
    ::close(fd);
    return data;
}

bool FileSystem::writeAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        ssize_t n = ::write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

namespace {

// A temporary of a unique name beside path (two threads of one process may write the
// same file at once), given the mode, written whole, synced and renamed over path.
bool writeThroughTemporary(const std::string& path, const std::string& data, mode_t mode) {
    if (path.empty())
        return false;
    std::string temp = path + ".tmp-XXXXXX";
    int fd = ::mkostemp(temp.data(), O_CLOEXEC);
    if (fd < 0)
        return false;
    bool ok = ::fchmod(fd, mode) == 0 && FileSystem::writeAll(fd, data.data(), data.size()) &&
              ::fsync(fd) == 0;
    return finishAtomicWrite(fd, temp, path, ok);
}

} // namespace

bool FileSystem::writeFileAtomically(const std::string& path, const std::string& data) {
    return writeThroughTemporary(path, data, S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH);
}

bool FileSystem::appendToFile(const std::string& path, const std::string& data) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    bool ok = writeAll(fd, data.data(), data.size());
    return (::close(fd) == 0) && ok;
}

bool FileSystem::writePrivateFileAtomically(const std::string& path, const std::string& data) {
    return writeThroughTemporary(path, data, S_IRUSR | S_IWUSR);
}

bool FileSystem::writeHeadAndAppend(const std::string& path, const std::string& head,
                                    const std::string& tail) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0)
        return false;
    // Another process (the daemon beside the command line) may append too: without the
    // lock both could find the same end and one record would overwrite the other.
    bool ok = ::flock(fd, LOCK_EX) == 0;
    if (ok && !head.empty()) {
        ssize_t n;
        do
            n = ::pwrite(fd, head.data(), head.size(), 0);
        while (n < 0 && errno == EINTR);
        ok = n == static_cast<ssize_t>(head.size());
    }
    ok = ok && ::lseek(fd, 0, SEEK_END) >= 0 && writeAll(fd, tail.data(), tail.size());
    return (::close(fd) == 0) && ok;
}

std::optional<std::vector<std::string>> FileSystem::listDirectory(const std::string& path) {
    DIR* dir = ::opendir(path.c_str());
    if (!dir)
        return std::nullopt;
    std::vector<std::string> names;
    while (struct dirent* entry = ::readdir(dir)) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
            continue;
        names.emplace_back(entry->d_name);
    }
    ::closedir(dir);
    return names;
}

std::optional<std::vector<FileSystem::Entry>>
FileSystem::listDirectoryWithStatus(const std::string& path) {
    DIR* dir = ::opendir(path.c_str());
    if (!dir)
        return std::nullopt;
    const int fd = ::dirfd(dir);
    std::vector<Entry> entries;
    while (struct dirent* entry = ::readdir(dir)) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
            continue;
        Entry item{entry->d_name, std::nullopt};
        struct stat st {};
        if (::fstatat(fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0)
            item.status = fromStat(st);
        entries.push_back(std::move(item));
    }
    ::closedir(dir);
    return entries;
}

std::optional<uint64_t> FileSystem::availableSpace(const std::string& path) {
    struct statvfs vfs {};
    if (::statvfs(path.c_str(), &vfs) != 0)
        return std::nullopt;
    return static_cast<uint64_t>(vfs.f_bavail) * vfs.f_frsize;
}

std::optional<uint64_t> FileSystem::totalSpace(const std::string& path) {
    struct statvfs vfs {};
    if (::statvfs(path.c_str(), &vfs) != 0)
        return std::nullopt;
    return static_cast<uint64_t>(vfs.f_blocks) * vfs.f_frsize;
}

std::string FileSystem::lastErrorText() { return std::strerror(errno); }

int FileSystem::openFolderBeneath(int rootFd, const std::string& relative) {
    struct open_how how {};
    how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    return static_cast<int>(::syscall(SYS_openat2, rootFd, relative.c_str(), &how, sizeof how));
}

} // namespace cirrovault

#include "RunLock.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <unistd.h>

#include "platform/os/FileSystem.h"

namespace cirrovault::cli {

namespace {

std::optional<pid_t> readPid(int fd) {
    char buf[32] = {};
    ssize_t n = pread(fd, buf, sizeof buf - 1, 0);
    if (n <= 0)
        return std::nullopt;
    char* end = nullptr;
    long pid = std::strtol(buf, &end, 10);
    if (end == buf || pid <= 0)
        return std::nullopt;
    return static_cast<pid_t>(pid);
}

} // namespace

std::string RunLock::lockFilePath(const std::string& folder, const char* file) {
    return folder + "/" + file;
}

std::unique_ptr<RunLock> RunLock::acquire(const std::string& folder, pid_t* holder, const char* file) {
    if (holder)
        *holder = 0;
    FileSystem::createDirectories(folder);
    // A link planted under the lock's name must not lead the truncation to another file.
    int fd = open(lockFilePath(folder, file).c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0)
        return nullptr;
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (holder)
            *holder = readPid(fd).value_or(0);
        close(fd);
        return nullptr;
    }
    std::string pid = std::to_string(getpid()) + "\n";
    if (ftruncate(fd, 0) == 0)
        FileSystem::writeAll(fd, pid.data(), pid.size());
    return std::unique_ptr<RunLock>(new RunLock(fd));
}

std::optional<pid_t> RunLock::holder(const std::string& folder, const char* file) {
    int fd = open(lockFilePath(folder, file).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return std::nullopt;
    std::optional<pid_t> pid;
    if (flock(fd, LOCK_SH | LOCK_NB) != 0)
        pid = readPid(fd).value_or(0);
    else
        flock(fd, LOCK_UN);
    close(fd);
    return pid;
}

RunLock::~RunLock() {
    // The pid goes first so that a reader never sees a dead owner's pid with no lock.
    if (ftruncate(fd_, 0) != 0) {
        // the lock itself is what counts; an old pid without it is ignored by readers
    }
    flock(fd_, LOCK_UN);
    close(fd_);
}

} // namespace cirrovault::cli

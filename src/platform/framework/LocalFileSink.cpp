#include "platform/framework/LocalFileSink.h"

#include <cstdlib>
#include <string_view>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/os/FileSystem.h"

namespace cirrovault {

std::unique_ptr<LocalFileSink> LocalFileSink::open(const std::string& targetPath,
                                                   Date modifyTime, uint32_t mode) {
    if (targetPath.empty() || targetPath.back() == '/')
        return nullptr;
    auto slash = targetPath.find_last_of('/');
    std::string folder = slash == std::string::npos ? "." : targetPath.substr(0, slash + 1);
    std::string name = slash == std::string::npos ? targetPath : targetPath.substr(slash + 1);
    // The temporary name must fit where the target's does: a long name is shortened.
    constexpr std::string_view suffix = ".download-XXXXXX";
    constexpr size_t nameMax = 255;
    std::string pattern =
        folder + "." + name.substr(0, nameMax - 1 - suffix.size()) + std::string(suffix);
    int fd = ::mkostemp(pattern.data(), O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    // mkostemp makes 0600. A file stored without a mode is an ordinary file; a link's
    // target stays private until it becomes the link.
    if (S_ISREG(mode))
        ::fchmod(fd, mode & 0777);
    else if (mode == 0)
        ::fchmod(fd, 0644);
    std::unique_ptr<LocalFileSink> sink(new LocalFileSink());
    sink->fd_ = fd;
    sink->targetPath_ = targetPath;
    sink->tempPath_ = pattern;
    sink->modifyTime_ = modifyTime;
    return sink;
}

LocalFileSink::~LocalFileSink() {
    if (!finished_)
        discard();
}

bool LocalFileSink::write(const char* buffer, size_t n) {
    return fd_ >= 0 && FileSystem::writeAll(fd_, buffer, n);
}

bool LocalFileSink::finish() {
    if (fd_ < 0 || finished_)
        return false;
    bool ok = ::fsync(fd_) == 0;
    ok = ::close(fd_) == 0 && ok;
    fd_ = -1;
    ok = ok && FileSystem::setModifyTime(tempPath_, modifyTime_);
    ok = ok && FileSystem::replaceItem(tempPath_, targetPath_);
    if (!ok) {
        discard();
        return false;
    }
    finished_ = true;
    return true;
}

void LocalFileSink::discard() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
    if (!tempPath_.empty() && !finished_)
        FileSystem::removeItem(tempPath_);
    finished_ = true;
}

} // namespace cirrovault

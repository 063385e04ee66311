#include "platform/framework/LocalFileSink.h"

#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/os/FileSystem.h"

namespace cirrovault {

std::unique_ptr<LocalFileSink> LocalFileSink::open(const std::string& targetPath,
                                                   Date modifyTime) {
    if (targetPath.empty() || targetPath.back() == '/')
        return nullptr;
    auto slash = targetPath.find_last_of('/');
    std::string folder = slash == std::string::npos ? "." : targetPath.substr(0, slash + 1);
    std::string name = slash == std::string::npos ? targetPath : targetPath.substr(slash + 1);
    std::string pattern = folder + "." + name + ".download-XXXXXX";
    int fd = ::mkostemp(pattern.data(), O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    ::fchmod(fd, 0644); // mkostemp makes 0600; a restored file is an ordinary file
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

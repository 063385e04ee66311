#include "platform/framework/LocalFileSource.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

namespace cirrovault {

std::unique_ptr<LocalFileSource> LocalFileSource::open(const std::string& path) {
    if (path.empty())
        return nullptr;
    struct stat st {};
    std::unique_ptr<LocalFileSource> source(new LocalFileSource());
    if (::lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
        std::string target(static_cast<size_t>(st.st_size) + 1, '\0');
        ssize_t n = ::readlink(path.c_str(), target.data(), target.size());
        if (n < 0 || static_cast<size_t>(n) >= target.size())
            return nullptr; // gone, or changed since its status was read
        target.resize(static_cast<size_t>(n));
        source->linkTarget_ = std::move(target);
        source->size_ = source->linkTarget_.size();
    } else {
        // O_NOFOLLOW: a file replaced by a link meanwhile is not followed either.
        int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
        if (fd < 0)
            return nullptr;
        if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
            ::close(fd);
            return nullptr;
        }
        source->fd_ = fd;
        source->size_ = static_cast<uint64_t>(st.st_size);
    }
    source->mode_ = st.st_mode;
    source->modifyTime_ =
        Date(static_cast<double>(st.st_mtim.tv_sec) + st.st_mtim.tv_nsec / 1e9);
    source->tag_ = fmt::format("file:{}:{}.{:09}:{}.{:09}:{}:{}", st.st_size,
                               st.st_mtim.tv_sec, st.st_mtim.tv_nsec, st.st_ctim.tv_sec,
                               st.st_ctim.tv_nsec, st.st_dev, st.st_ino);
    return source;
}

LocalFileSource::~LocalFileSource() {
    if (fd_ >= 0)
        ::close(fd_);
}

bool LocalFileSource::seek(uint64_t offset) {
    if (offset > size_)
        return false;
    if (fd_ >= 0 && ::lseek(fd_, static_cast<off_t>(offset), SEEK_SET) < 0)
        return false;
    position_ = offset;
    return true;
}

int64_t LocalFileSource::read(char* buffer, size_t n) {
    uint64_t left = size_ - position_;
    if (n > left)
        n = static_cast<size_t>(left);
    if (n == 0)
        return 0;
    if (fd_ < 0) {
        linkTarget_.copy(buffer, n, static_cast<size_t>(position_));
        position_ += n;
        return static_cast<int64_t>(n);
    }
    for (;;) {
        ssize_t got = ::read(fd_, buffer, n);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return -1; // an error, or the file is shorter than it was when opened
        position_ += static_cast<uint64_t>(got);
        return got;
    }
}

} // namespace cirrovault

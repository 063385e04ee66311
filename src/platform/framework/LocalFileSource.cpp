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
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        return nullptr;
    }
    std::unique_ptr<LocalFileSource> source(new LocalFileSource());
    source->fd_ = fd;
    source->size_ = static_cast<uint64_t>(st.st_size);
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
    if (::lseek(fd_, static_cast<off_t>(offset), SEEK_SET) < 0)
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

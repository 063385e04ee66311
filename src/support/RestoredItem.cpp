#include "support/RestoredItem.h"

#include <cerrno>
#include <cmath>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"

namespace cirrovault {

namespace {

constexpr size_t kLongestTarget = 4096; // PATH_MAX: a longer "target" is not one

std::string failure(const std::string& what, const std::string& path) {
    std::string text = what + ": " + FileSystem::lastErrorText();
    SystemLog::write("Restore: " + text + ": " + path);
    return text;
}

} // namespace

std::string RestoredItem::finish(const std::string& localPath, uint32_t mode, Date modifyTime) {
    try {
        if (S_ISREG(mode)) {
            // The download gave the bits; say so when the file system would not take them.
            auto status = FileSystem::linkStatus(localPath);
            if (status && (status->mode & 0777) != (mode & 0777))
                return "permissions not kept by this file system";
            return "";
        }
        if (!S_ISLNK(mode))
            return "";
        auto target = FileSystem::readFile(localPath);
        if (!target || target->empty() || target->size() > kLongestTarget ||
            target->find('\0') != std::string::npos)
            return "the stored link is damaged; its target is left as a file";
        // Made beside it and renamed over it: the name is never missing.
        std::string temporary = localPath + ".link-" + std::to_string(::getpid());
        ::unlink(temporary.c_str());
        if (::symlink(target->c_str(), temporary.c_str()) != 0)
            return failure("the link could not be made; its target is left as a file", localPath);
        double seconds = modifyTime.timeIntervalSince1970();
        struct timespec times[2];
        times[0].tv_sec = static_cast<time_t>(std::floor(seconds));
        times[0].tv_nsec = static_cast<long>((seconds - std::floor(seconds)) * 1e9);
        times[1] = times[0];
        bool timed = ::utimensat(AT_FDCWD, temporary.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0;
        std::string timeError = timed ? "" : failure("the link's time could not be set", localPath);
        if (::rename(temporary.c_str(), localPath.c_str()) != 0) {
            std::string text = failure("the link could not replace its target file", localPath);
            ::unlink(temporary.c_str());
            return text;
        }
        return timeError;
    } catch (const std::exception&) {
        SystemLog::write("Error: RestoredItem::finish");
        return "the link or permissions could not be restored";
    }
}

} // namespace cirrovault

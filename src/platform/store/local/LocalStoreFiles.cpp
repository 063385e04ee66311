// The transfers of the local store: put, get and copy.
#include <algorithm>
#include <cmath>
#include <cerrno>
#include <exception>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/os/ResultCodes.h"
#include "platform/os/SystemLog.h"
#include "platform/store/StorePath.h"
#include "platform/store/local/LocalStore.h"

namespace cirrovault {

namespace {


// A file descriptor closed when it goes out of scope.
class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0)
            ::close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    bool close() {
        int fd = fd_;
        fd_ = -1;
        return fd < 0 || ::close(fd) == 0;
    }

private:
    int fd_;
};

ssize_t readSome(int fd, char* buffer, size_t size) {
    for (;;) {
        ssize_t n = ::read(fd, buffer, size);
        if (n >= 0 || errno != EINTR)
            return n;
    }
}

int64_t writeFailure(int error, const std::string& what) {
    errno = error;
    SystemLog::write("Error: LocalStore: cannot write " + what + ": " +
                     FileSystem::lastErrorText());
    return (error == ENOSPC || error == EDQUOT) ? ResultCode::SpaceLimit : ResultCode::Failure;
}

int64_t openFailure(int error, const std::string& what) {
    errno = error;
    SystemLog::write("LocalStore: cannot open " + what + ": " + FileSystem::lastErrorText());
    switch (error) {
    case ELOOP: // a link put in place after the path was checked
    case ENAMETOOLONG:
        return ResultCode::BadPath;
    case ENOENT:
        return ResultCode::NotFound;
    default:
        return ResultCode::Failure;
    }
}

// Copies one file, keeping its modification time. The target must not exist.
int64_t copyFile(const std::string& from, const std::string& to, Date modifyTime) {
    Descriptor in(::open(from.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!in.valid())
        return openFailure(errno, from);
    Descriptor out(::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!out.valid())
        return openFailure(errno, to);
    std::vector<char> buffer(LocalStore::ChunkSize);
    for (;;) {
        ssize_t n = readSome(in.get(), buffer.data(), buffer.size());
        if (n < 0) {
            SystemLog::write("Error: LocalStore: cannot read " + from);
            return ResultCode::Failure;
        }
        if (n == 0)
            break;
        if (!FileSystem::writeAll(out.get(), buffer.data(), static_cast<size_t>(n)))
            return writeFailure(errno, to);
    }
    if (!out.close())
        return writeFailure(errno, to);
    return FileSystem::setModifyTime(to, modifyTime) ? ResultCode::Success : ResultCode::Failure;
}

// Answered by putNewWhole when the ordinary way (a part file with its row) must do it.
constexpr int64_t UseAPart = -1;

// A new file small enough to go in one piece is written into an unnamed file in its
// folder and linked under its name only when complete: no part file stands in the tree
// at any moment, so it needs no row either. UseAPart when the file system has no
// unnamed files or the name was taken meanwhile.
int64_t putNewWhole(const std::string& target, ByteSource& source, uint64_t size,
                    Date modifyTime, TransferObserver* observer) {
    const std::string folder = target.substr(0, target.rfind('/'));
    Descriptor file(::open(folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
    if (!file.valid())
        return errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL ? UseAPart
                                                                            : openFailure(errno, target);
    if (observer && !observer->shouldContinue())
        return ResultCode::Cancelled;
    if (!source.seek(0)) {
        SystemLog::write("LocalStore: the local file cannot be read from its start");
        return ResultCode::LocalFileError;
    }
    std::vector<char> buffer(std::max<uint64_t>(size, 1));
    uint64_t done = 0;
    while (done < size) {
        int64_t n = source.read(buffer.data() + done, static_cast<size_t>(size - done));
        if (n <= 0 || static_cast<uint64_t>(n) > size - done) {
            SystemLog::write("LocalStore: the local file cannot be read for " + target);
            return ResultCode::LocalFileError;
        }
        done += static_cast<uint64_t>(n);
    }
    if (!FileSystem::writeAll(file.get(), buffer.data(), static_cast<size_t>(size)))
        return writeFailure(errno, target);
    const double seconds = std::floor(modifyTime.timeIntervalSince1970());
    timespec times[2];
    times[0].tv_sec = 0;
    times[0].tv_nsec = UTIME_OMIT;
    times[1].tv_sec = static_cast<time_t>(seconds);
    times[1].tv_nsec = std::clamp(
        static_cast<long>((modifyTime.timeIntervalSince1970() - seconds) * 1e9), 0L, 999'999'999L);
    if (::futimens(file.get(), times) != 0)
        return writeFailure(errno, target);
    const std::string self = "/proc/self/fd/" + std::to_string(file.get());
    if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, target.c_str(), AT_SYMLINK_FOLLOW) != 0)
        return errno == EEXIST || errno == ENOENT ? UseAPart : writeFailure(errno, target);
    if (observer)
        observer->transferred(size, size);
    return ResultCode::Success;
}

} // namespace

int64_t LocalStore::put(const std::string& path, ByteSource& source, Date modifyTime,
                        TransferObserver* observer) {
    try {
        Account account;
        Location target;
        if (int64_t rc = locateLoggedOn(path, account, target); rc != ResultCode::Success)
            return rc;
        if (target.serverPath == "\\") {
            SystemLog::write("LocalStore: a file cannot replace the account's root");
            return ResultCode::BadPath;
        }
        if (target.status && target.status->type == FileType::Directory) {
            SystemLog::write("LocalStore: a folder has the upload's name: " + target.serverPath);
            return ResultCode::AlreadyExists;
        }
        const std::string& customerID = account.customerID;
        // Storing a file under the name another upload uses for its part gives that up.
        if (std::string upload; isUnfinishedUpload(account, target, &upload))
            db_.removePartTag(customerID, upload);

        const uint64_t size = source.size();
        const uint64_t oldSize = target.status ? target.status->size : 0;
        if (size > oldSize) {
            if (int64_t rc = checkSpace(account, static_cast<int64_t>(size - oldSize));
                rc != ResultCode::Success)
                return rc;
        }

        // The row naming the part exists before the part itself, so a part file never
        // stands in the tree unexplained, even after a crash.
        const std::string partServerPath = StorePath::partPath(target.serverPath);
        const std::string partPath = target.localPath.substr(0, target.localPath.rfind('/') + 1) +
                                     partServerPath.substr(partServerPath.rfind('\\') + 1);
        auto partStatus = FileSystem::linkStatus(partPath);
        if (partStatus && partStatus->type != FileType::Regular) {
            SystemLog::write("LocalStore: refused upload over a link or folder: " + partPath);
            return ResultCode::BadPath;
        }
        if (!partStatus && !target.status && size <= ChunkSize) {
            // The mode's row comes first: the new file is never seen without it. It is
            // written only while no upload of that name has a row.
            bool uploading = false;
            if (!db_.setNewFileMode(customerID, target.serverPath, source.mode(), uploading))
                return ResultCode::Failure;
            if (!uploading) {
                int64_t rc = putNewWhole(target.localPath, source, size, modifyTime, observer);
                if (rc == ResultCode::Success)
                    adjustUsedSpace(static_cast<int64_t>(size));
                if (rc != UseAPart)
                    return rc;
            }
        }
        std::optional<std::string> storedTag;
        if (!db_.partTag(customerID, target.serverPath, storedTag))
            return ResultCode::Failure;
        if (partStatus && !storedTag) {
            SystemLog::write("LocalStore: a stored file has the upload's part name: " +
                             partServerPath);
            return ResultCode::AlreadyExists;
        }
        const std::string tag = source.resumeTag();
        if (!partStatus) {
            if (!db_.setPartTag(customerID, target.serverPath, tag))
                return ResultCode::Failure;
            storedTag = tag;
        }
        Descriptor part(
            ::open(partPath.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!part.valid())
            return openFailure(errno, partPath);
        // One writer per part, across threads and processes; the lock goes with the
        // descriptor, also when a process dies.
        if (::flock(part.get(), LOCK_EX | LOCK_NB) != 0) {
            SystemLog::write("LocalStore: another upload is writing " + target.serverPath);
            return ResultCode::Conflict;
        }
        struct stat partInfo {};
        if (::fstat(part.get(), &partInfo) != 0)
            return ResultCode::Failure;
        const auto partSize = static_cast<uint64_t>(partInfo.st_size);

        uint64_t done = 0;
        bool resume = !tag.empty() && storedTag == tag && partSize > 0 && partSize <= size &&
                      source.seek(partSize);
        if (resume) {
            done = partSize;
            if (observer)
                observer->resumedFrom(done);
        } else {
            // Only a part with bytes in it is cut: on ext4, truncating a file to nothing
            // makes its close write it out at once, which a fresh part must not pay for.
            if (partSize > 0 && ::ftruncate(part.get(), 0) != 0)
                return writeFailure(errno, partPath);
            if (storedTag != tag && !db_.setPartTag(customerID, target.serverPath, tag))
                return ResultCode::Failure;
            if (!source.seek(0)) {
                SystemLog::write("LocalStore: the local file cannot be read from its start");
                return ResultCode::LocalFileError;
            }
        }
        if (::lseek(part.get(), static_cast<off_t>(done), SEEK_SET) < 0)
            return ResultCode::Failure;

        std::vector<char> buffer(std::clamp<uint64_t>(size - done, 1, ChunkSize));
        while (done < size) {
            if (observer && !observer->shouldContinue())
                return ResultCode::Cancelled; // the part stays for the next attempt
            const auto want = static_cast<size_t>(std::min<uint64_t>(buffer.size(), size - done));
            int64_t n = source.read(buffer.data(), want);
            if (n < 0 || n > static_cast<int64_t>(want)) {
                SystemLog::write("LocalStore: the local file cannot be read for " +
                                 target.serverPath);
                return ResultCode::LocalFileError;
            }
            if (n == 0) {
                SystemLog::write("LocalStore: the local file ended early for " + target.serverPath);
                return ResultCode::LocalFileError;
            }
            if (!FileSystem::writeAll(part.get(), buffer.data(), static_cast<size_t>(n)))
                return writeFailure(errno, partPath);
            done += static_cast<uint64_t>(n);
            if (observer)
                observer->transferred(done, size);
        }
        // A large file is worth its own sync; small ones wait for flush().
        if (size >= SyncThreshold && ::fdatasync(part.get()) != 0)
            return writeFailure(errno, partPath);
        if (!FileSystem::setModifyTime(partPath, modifyTime) ||
            !FileSystem::replaceItem(partPath, target.localPath)) {
            SystemLog::write("Error: LocalStore: cannot complete " + target.localPath + ": " +
                             FileSystem::lastErrorText());
            return ResultCode::Failure;
        }
        db_.removePartTag(customerID, target.serverPath);
        db_.setFileMode(customerID, target.serverPath, source.mode());
        part.close();
        adjustUsedSpace(static_cast<int64_t>(size) - static_cast<int64_t>(oldSize));
        return ResultCode::Success;
    } catch (const std::exception&) {
        SystemLog::write("Error: LocalStore::put()");
        return ResultCode::Failure;
    }
}

int64_t LocalStore::get(const std::string& path, ByteSink& sink, TransferObserver* observer) {
    try {
        Account account;
        Location location;
        if (int64_t rc = locateLoggedOn(path, account, location); rc != ResultCode::Success)
            return rc;
        if (!location.status || location.status->type != FileType::Regular ||
            isUnfinishedUpload(account, location))
            return ResultCode::NotFound;
        Descriptor file(::open(location.localPath.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
        if (!file.valid())
            return openFailure(errno, location.localPath);
        struct stat info {};
        if (::fstat(file.get(), &info) != 0)
            return ResultCode::Failure;
        const auto total = static_cast<uint64_t>(info.st_size);
        std::vector<char> buffer(std::clamp<uint64_t>(total, 1, ChunkSize));
        uint64_t done = 0;
        for (;;) {
            if (observer && !observer->shouldContinue())
                return ResultCode::Cancelled;
            ssize_t n = readSome(file.get(), buffer.data(), buffer.size());
            if (n < 0) {
                SystemLog::write("Error: LocalStore: cannot read " + location.localPath);
                return ResultCode::Failure;
            }
            if (n == 0)
                break;
            if (!sink.write(buffer.data(), static_cast<size_t>(n))) {
                SystemLog::write("LocalStore: the local file cannot be written for " +
                                 location.serverPath);
                return ResultCode::LocalFileError;
            }
            done += static_cast<uint64_t>(n);
            if (observer)
                observer->transferred(done, std::max(total, done));
        }
        if (!sink.finish()) {
            SystemLog::write("LocalStore: the local file cannot be completed for " +
                             location.serverPath);
            return ResultCode::LocalFileError;
        }
        return ResultCode::Success;
    } catch (const std::exception&) {
        SystemLog::write("Error: LocalStore::get()");
        return ResultCode::Failure;
    }
}

int64_t LocalStore::copyTree(const std::string& localFrom, const std::string& localTo,
                             const std::string& serverFrom, const PartSet& parts) {
    auto status = FileSystem::linkStatus(localFrom);
    if (!status)
        return ResultCode::Failure;
    if (status->type == FileType::Regular)
        return copyFile(localFrom, localTo, status->modifyTime);
    if (status->type != FileType::Directory)
        return ResultCode::Success; // links and special files are not copied
    if (::mkdir(localTo.c_str(), 0700) != 0)
        return writeFailure(errno, localTo);
    auto names = FileSystem::listDirectory(localFrom);
    if (!names)
        return ResultCode::Failure;
    for (const auto& name : *names) {
        std::string serverPath = StorePath::child(serverFrom, name);
        auto entry = FileSystem::linkStatus(localFrom + "/" + name);
        if (!entry || (entry->type == FileType::Regular && isPartOf(serverPath, parts)))
            continue;
        int64_t rc = copyTree(localFrom + "/" + name, localTo + "/" + name, serverPath, parts);
        if (rc != ResultCode::Success)
            return rc;
    }
    return ResultCode::Success;
}

int64_t LocalStore::copy(const std::string& from, const std::string& to) {
    try {
        Account account;
        Location source;
        Location target;
        if (int64_t rc = locateSourceAndTarget(
                from, to, "LocalStore: the account's root cannot be copied or replaced",
                "LocalStore: a folder cannot be copied into itself: ", account, source, target);
            rc != ResultCode::Success)
            return rc;
        const bool folder = source.status->type == FileType::Directory;
        PartSet parts;
        uint64_t bytes = source.status->size;
        if (folder) {
            if (!unfinishedUploads(account, source.serverPath, parts))
                return ResultCode::Failure;
            bytes = totalsOf(source.localPath, source.serverPath, parts).bytes;
        }
        if (int64_t rc = checkSpace(account, static_cast<int64_t>(bytes));
            rc != ResultCode::Success)
            return rc;
        int64_t copied = copyTree(source.localPath, target.localPath, source.serverPath, parts);
        // Files were written in place: a folder read meanwhile saw them part-written.
        totals_.forget(target.localPath);
        totals_.forget(target.localPath.substr(0, target.localPath.rfind('/')));
        if (copied != ResultCode::Success) {
            FileSystem::removeAll(target.localPath);
            return copied;
        }
        if (folder ? !db_.copyFolderInfos(account.customerID, source.serverPath, target.serverPath)
                   : !db_.setFileMode(account.customerID, target.serverPath,
                                      storedMode(account, source.serverPath)))
            return ResultCode::Failure;
        adjustUsedSpace(static_cast<int64_t>(bytes));
        return ResultCode::Success;
    } catch (const std::exception&) {
        SystemLog::write("Error: LocalStore::copy()");
        return ResultCode::Failure;
    }
}

} // namespace cirrovault

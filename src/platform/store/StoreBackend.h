#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/os/Date.h"

namespace cirrovault {

// One of the user's settings by key, or nullopt when it is not set. The settings belong
// to the layer above, which hands this in; backends read it at each use, so a change
// counts at once.
using SettingReader = std::function<std::optional<std::string>(const std::string& key)>;

// One item on the service. Paths given to a backend are server paths relative to the
// account's root, with "\" separators: "\Backup\Docs\a.txt". "\" alone is the root.
struct StoreItem {
    std::string name;
    bool isFolder = false;
    uint64_t size = 0;       // bytes of a file; for a folder, the bytes of its files, recursively
    int32_t fileCount = 0;   // for a folder, the number of files beneath it, recursively
    Date modifyTime;         // a file's kept modification time (the local file's, as uploaded)
    std::string description; // folders only
    std::string caption;     // folders only
    // Files: the local file's st_mode as uploaded (permission bits, and S_IFLNK for a
    // symbolic link, whose stored bytes are its target); 0 when the store kept none.
    uint32_t mode = 0;
};

struct StoreCapabilities {
    bool nativeCopy = false;
    bool nativeMove = false;
    bool resumableUpload = false;   // a put continues an interrupted ".part"
    bool folderProperties = false;  // descriptions and captions are kept
    double modifyTimePrecision = 1; // seconds: 1e-9 for a local file system, 1 for WebDAV
    // Puts of different files may run at once from several threads, each gaining from it
    // (a network store: one connection each).
    bool concurrentPuts = false;
};

struct StoreQuota {
    // maxSpace of a store that tells no limit: large enough that no check ever stops
    // at it, and shown as unknown.
    static constexpr int64_t Unknown = int64_t(1) << 60;
    int64_t maxSpace = 0;  // bytes the account may hold
    int64_t usedSpace = 0; // bytes its files hold now
};

struct StoreSession {
    std::string sessionID;
    std::string customerID; // names the account; safe to use as a folder name
};

// The bytes of an upload. Implementations read a local file, possibly encrypting it.
class ByteSource {
public:
    virtual ~ByteSource() = default;
    virtual uint64_t size() const = 0;
    // Positions the next read; false when the source cannot start there.
    virtual bool seek(uint64_t offset) = 0;
    // Up to n bytes; 0 at the end; -1 on a read error.
    virtual int64_t read(char* buffer, size_t n) = 0;
    // Identifies the content: an interrupted upload is resumed only when the next
    // upload of the same path comes with the same tag (same local file, unchanged).
    virtual std::string resumeTag() const = 0;
    // The local file's st_mode, kept with the stored copy; 0 for none.
    virtual uint32_t mode() const { return 0; }
};

// Where downloaded bytes go. Implementations write a local file, possibly decrypting.
class ByteSink {
public:
    virtual ~ByteSink() = default;
    virtual bool write(const char* buffer, size_t n) = 0;
    // Called once after the last byte; false makes the transfer fail.
    virtual bool finish() = 0;
};

// Told of a transfer's progress; asked whether to go on.
class TransferObserver {
public:
    virtual ~TransferObserver() = default;
    // Bytes of the file now stored, counting bytes kept from an earlier attempt.
    virtual void transferred(uint64_t bytesDone, uint64_t bytesTotal) = 0;
    // Bytes found already stored by an interrupted attempt, before the first transfer.
    virtual void resumedFrom(uint64_t bytes) { (void)bytes; }
    virtual bool shouldContinue() = 0; // false: stop soon and answer ResultCode::Cancelled
};

// A storage service: the embedded local store or a network one. Every operation
// answers a result code (ResultCode.h); a path that leaves the account's root or has
// empty or "." / ".." components is refused with BadPath and touches nothing.
class StoreBackend {
public:
    virtual ~StoreBackend() = default;

    virtual StoreCapabilities capabilities() const = 0;
    // A short text naming the store for logs and status ("local /path", "webdav://...").
    virtual std::string describe() const = 0;
    // Where a user finds the item at a server path outside this program (a local path or
    // a URL); the server path itself when the store cannot tell.
    virtual std::string locationOf(const std::string& path) const { return path; }

    // Checks the password; a store with no account of that name creates it (first
    // logon of a new user). Later operations act on that account.
    virtual int64_t logon(const std::string& userName, const std::string& password,
                          StoreSession& session) = 0;
    virtual void logoff() = 0;

    virtual int64_t stat(const std::string& path, StoreItem& item) = 0;
    // The folder's immediate entries, names only in StoreItem::name.
    virtual int64_t list(const std::string& folder, std::vector<StoreItem>& items) = 0;
    // Creates one folder (its parent must exist); AlreadyExists if it does.
    virtual int64_t makeFolder(const std::string& path, const std::string& description,
                               const std::string& caption) = 0;
    virtual int64_t setFolderInfo(const std::string& path, const std::string& description,
                                  const std::string& caption) = 0;

    // Stores a file: the bytes go to StorePath::partPath(path), which replaces it only when
    // complete, and the stored file keeps modifyTime. An existing ".part" with the same
    // resume tag is continued from its size. SpaceLimit when the quota would be passed.
    virtual int64_t put(const std::string& path, ByteSource& source, Date modifyTime,
                        TransferObserver* observer) = 0;
    virtual int64_t get(const std::string& path, ByteSink& sink, TransferObserver* observer) = 0;

    // Moves or copies a file or folder to a new path (whose parent must exist);
    // AlreadyExists when the target exists.
    virtual int64_t move(const std::string& from, const std::string& to) = 0;
    virtual int64_t copy(const std::string& from, const std::string& to) = 0;
    // Removes a file or a whole folder.
    virtual int64_t remove(const std::string& path) = 0;

    virtual int64_t quota(StoreQuota& quota) = 0;

    // The account's task-list document and its version. A write succeeds only while the
    // stored version still equals expectedVersion (empty: no document yet); otherwise it
    // answers Conflict and the caller reads again.
    virtual int64_t readTaskList(std::string& document, std::string& version) = 0;
    virtual int64_t writeTaskList(const std::string& document,
                                  const std::string& expectedVersion) = 0;

    // Makes everything stored so far durable (end of a run).
    virtual int64_t flush() = 0;
};

} // namespace cirrovault

#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "platform/os/FileSystem.h"
#include "platform/store/StoreBackend.h"
#include "platform/store/local/LocalFolderTotals.h"
#include "platform/store/local/LocalStoreDatabase.h"

namespace cirrovault {

// The embedded store: a folder on this computer. Each account's files are kept as plain
// files and folders with their real names under "accounts/<customerID>/files", so the
// backup can be read with a file manager; everything else (accounts, folder
// descriptions, quotas, the task-list document, resume tags of unfinished uploads, the
// modes of the local files, whose type says which file holds a symbolic link's target) is in
// "store.db". Several objects, threads and processes may use one store at once.
//
// An unfinished upload of "x" is the file "x.part" beside it (StorePath::partPath: a
// shortened name for the longest names) together with its row in the database; only such
// files are hidden from listings, so a user's own file named "x.part" is stored and
// listed like any other.
class LocalStore : public StoreBackend {
public:
    // folder: where the store lives; it is created on the first logon.
    explicit LocalStore(std::string folder);
    ~LocalStore() override;

    StoreCapabilities capabilities() const override;
    std::string describe() const override;
    std::string locationOf(const std::string& path) const override;

    int64_t logon(const std::string& userName, const std::string& password,
                  StoreSession& session) override;
    void logoff() override;

    int64_t stat(const std::string& path, StoreItem& item) override;
    int64_t list(const std::string& folder, std::vector<StoreItem>& items) override;
    int64_t makeFolder(const std::string& path, const std::string& description,
                       const std::string& caption) override;
    int64_t setFolderInfo(const std::string& path, const std::string& description,
                          const std::string& caption) override;

    int64_t put(const std::string& path, ByteSource& source, Date modifyTime,
                TransferObserver* observer) override;
    int64_t get(const std::string& path, ByteSink& sink, TransferObserver* observer) override;

    int64_t move(const std::string& from, const std::string& to) override;
    int64_t copy(const std::string& from, const std::string& to) override;
    int64_t remove(const std::string& path) override;

    int64_t quota(StoreQuota& quota) override;

    int64_t readTaskList(std::string& document, std::string& version) override;
    int64_t writeTaskList(const std::string& document, const std::string& expectedVersion) override;

    int64_t flush() override;

    // Limits the logged-on account to maxBytes; DiskQuota goes back to the default,
    // what the disk can hold.
    int64_t setQuota(int64_t maxBytes);
    static constexpr int64_t DiskQuota = -1;

    const std::string& folder() const { return folder_; }
    // The local folder with the logged-on account's files; "" when not logged on.
    std::string accountFilesFolder() const;

    // Rebuilds the records of the store in folder from what its account folders keep: a
    // damaged database is moved aside first. An account kept without a copy of its owner
    // goes to userName with password() when it is the only one. Success when every
    // account is back; report says what was done, line by line.
    static int64_t repair(const std::string& folder, const std::string& userName,
                          const std::function<std::optional<std::string>()>& password,
                          std::vector<std::string>& report);

    static constexpr size_t ChunkSize = 1 << 20;       // bytes between cancel checks
    static constexpr uint64_t SyncThreshold = 8 << 20; // larger uploads are synced before use

private:
    // The account's root folder held open, so paths below it are looked up from there
    // instead of from "/" for every component checked.
    struct OpenFolder {
        int fd = -1;
        ~OpenFolder();
    };
    struct Account {
        std::string customerID;
        std::string filesRoot;             // local folder of the account's "\"
        std::shared_ptr<OpenFolder> root;  // filesRoot, open; none when it cannot be opened
    };
    // A server path mapped onto the account's folder.
    struct Location {
        std::string serverPath;           // canonical
        std::string localPath;            // absolute
        std::optional<FileStatus> status; // the item itself; none when absent
    };
    struct Totals {
        uint64_t bytes = 0;
        int32_t files = 0;
    };
    using PartSet = std::unordered_set<std::string>; // part paths of unfinished uploads

    std::optional<Account> currentAccount() const;
    static bool isSafeCustomerID(const std::string& id);
    // Customer IDs of the accounts whose files the store in folder keeps.
    static std::vector<std::string> accountsOnDisk(const std::string& folder);
    // Opens store.db: StoreDamaged when it is damaged, or empty or new while account
    // files are there; it is then left as it is.
    int64_t openRecords();
    // The copies in the account's folder that repair() rebuilds the records from.
    void keepAccountCopy(const std::string& customerID, const std::string& userName,
                         const std::string& passwordHash);
    void keepTaskListCopy(const std::string& customerID, const std::string& document);
    // Success, BadPath (malformed, or a link on the way) or NotFound (a missing parent).
    int64_t locate(const Account& account, const std::string& path, Location& location);
    std::optional<int64_t> locateBelowFolder(const Account& account,
                                             const std::vector<std::string>& names,
                                             const std::string& path, Location& location);
    // The opening of every path operation: NotLoggedOn, or locate()'s answer for the
    // logged-on account, which is left in account.
    int64_t locateLoggedOn(const std::string& path, Account& account, Location& location);
    // The checks a move and a copy share: both paths located, neither one the root
    // (rootRefusal is logged), the source present, the target free and not inside the
    // source (insideRefusal is logged, followed by to).
    int64_t locateSourceAndTarget(const std::string& from, const std::string& to,
                                  std::string_view rootRefusal, std::string_view insideRefusal,
                                  Account& account, Location& source, Location& target);
    // True when location is the part file of an unfinished upload, whose target path is
    // then left in upload.
    bool isUnfinishedUpload(const Account& account, const Location& location,
                            std::string* upload = nullptr);
    // The st_mode kept with a stored file; 0 when none was kept.
    uint32_t storedMode(const Account& account, const std::string& serverPath);
    bool unfinishedUploads(const Account& account, const std::string& folder, PartSet& parts);
    static bool isPartOf(const std::string& serverPath, const PartSet& parts);
    Totals totalsOf(const std::string& localFolder, const std::string& serverFolder,
                    const PartSet& parts) const;
    // Success, SpaceLimit (the disk filled up) or Failure.
    int64_t copyTree(const std::string& localFrom, const std::string& localTo,
                     const std::string& serverFrom, const PartSet& parts);

    // SpaceLimit when adding bytes would take the account over its quota.
    int64_t checkSpace(const Account& account, int64_t adding);
    int64_t usedSpace(const Account& account, bool refresh);
    // The account's quota, none for the disk's; kept like the used space, so an upload
    // does not read it.
    bool accountLimit(const Account& account, bool refresh, std::optional<int64_t>& limit);
    void adjustUsedSpace(int64_t change);
    // The folder figures kept in the database, in and out.
    void loadFolderTotals();
    void saveFolderTotals();

    std::string folder_;
    LocalStoreDatabase db_;
    mutable LocalFolderTotals totals_; // folder figures, read again only where changed
    std::atomic<bool> totalsLoaded_{false}; // the figures kept by earlier processes are in
    mutable std::mutex mutex_;
    std::optional<Account> account_;   // guarded by mutex_
    std::optional<int64_t> usedBytes_; // guarded by mutex_; refreshed by quota()
    std::optional<std::optional<int64_t>> limit_; // guarded by mutex_; refreshed by quota()
    std::optional<uint64_t> freeSeen_;  // guarded by mutex_; the disk's last answer
    uint64_t writtenSinceFreeSeen_ = 0; // guarded by mutex_
};

} // namespace cirrovault

#include "platform/store/local/LocalStore.h"

#include <exception>

#include <fcntl.h>
#include <sodium.h>
#include <unistd.h>

#include "platform/os/ResultCodes.h"
#include "platform/os/SystemLog.h"
#include "platform/store/StorePath.h"

namespace cirrovault {

namespace {

std::string randomHex(size_t bytes) {
    std::string raw(bytes, '\0');
    randombytes_buf(raw.data(), raw.size());
    std::string hex(bytes * 2 + 1, '\0');
    sodium_bin2hex(hex.data(), hex.size(), reinterpret_cast<const unsigned char*>(raw.data()),
                   raw.size());
    hex.pop_back();
    return hex;
}

} // namespace

// Customer IDs become folder names; one read from a damaged database must not lead
// anywhere else.
bool LocalStore::isSafeCustomerID(const std::string& id) {
    if (id.empty() || id.size() > 64)
        return false;
    for (char c : id) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
        if (!ok)
            return false;
    }
    return true;
}

LocalStore::LocalStore(std::string folder) : folder_(std::move(folder)) {
    while (folder_.size() > 1 && folder_.back() == '/')
        folder_.pop_back();
}

LocalStore::~LocalStore() {
    try {
        saveFolderTotals();
    } catch (const std::exception&) {
        SystemLog::write("Error: LocalStore::~LocalStore()");
    }
}

LocalStore::OpenFolder::~OpenFolder() {
    if (fd >= 0)
        ::close(fd);
}

void LocalStore::loadFolderTotals() {
    std::vector<std::pair<std::string, std::string>> rows;
    if (!db_.folderTotals(rows))
        return;
    for (auto& row : rows)
        row.first = folder_ + "/" + row.first;
    totals_.load(rows);
}

void LocalStore::saveFolderTotals() {
    if (!db_.isOpen())
        return;
    std::vector<std::pair<std::string, std::string>> changed;
    std::vector<std::string> gone;
    totals_.takeChanges(changed, gone);
    const std::string prefix = folder_ + "/";
    auto relative = [&](std::string& path) {
        if (path.compare(0, prefix.size(), prefix) != 0)
            return false;
        path.erase(0, prefix.size());
        return true;
    };
    std::erase_if(changed, [&](auto& row) { return !relative(row.first); });
    std::erase_if(gone, [&](auto& path) { return !relative(path); });
    db_.replaceFolderTotals(changed, gone);
}

StoreCapabilities LocalStore::capabilities() const {
    StoreCapabilities caps;
    caps.nativeCopy = true;
    caps.nativeMove = true;
    caps.resumableUpload = true;
    caps.folderProperties = true;
    caps.modifyTimePrecision = 1e-9;
    return caps;
}

std::string LocalStore::describe() const {
    return "local " + folder_;
}

std::optional<LocalStore::Account> LocalStore::currentAccount() const {
    std::lock_guard lock(mutex_);
    return account_;
}

std::string LocalStore::locationOf(const std::string& path) const {
    auto account = currentAccount();
    auto names = StorePath::split(path);
    if (!account || !names)
        return path;
    std::string local = account->filesRoot;
    for (const auto& name : *names)
        local += "/" + name;
    return local;
}

std::string LocalStore::accountFilesFolder() const {
    auto account = currentAccount();
    return account ? account->filesRoot : std::string();
}

int64_t LocalStore::logon(const std::string& userName, const std::string& password,
                          StoreSession& session) {
    try {
        session = {};
        logoff();
        if (userName.empty())
            return ResultCode::EmptyName;
        if (sodium_init() < 0) {
            SystemLog::write("Error: LocalStore: the crypto library cannot start");
            return ResultCode::Failure;
        }
        if (!FileSystem::createDirectories(folder_)) {
            SystemLog::write("Error: LocalStore: the store folder cannot be made: " + folder_);
            return ResultCode::NoService;
        }
        // The store holds every backed-up file and the password hash: its folder is the
        // owner's only, and so is the database, whose journals take its mode. A store made
        // by an older version, open to others, is closed here.
        std::string database = folder_ + "/store.db";
        if (auto status = FileSystem::status(folder_); status && (status->mode & 077) != 0)
            FileSystem::setPermissions(folder_, 0700);
        if (!FileSystem::createEmptyFile(database, 0600)) {
            if (auto status = FileSystem::linkStatus(database); status && (status->mode & 077) != 0)
                FileSystem::setPermissions(database, 0600);
        }
        if (int64_t opened = openRecords(); opened != ResultCode::Success)
            return opened;
        if (!totalsLoaded_.exchange(true))
            loadFolderTotals();

        std::optional<LocalAccountRecord> record;
        if (!db_.findAccount(userName, record))
            return ResultCode::Failure;
        bool created = false;
        if (!record) {
            char hash[crypto_pwhash_STRBYTES];
            if (crypto_pwhash_str(hash, password.data(), password.size(),
                                  crypto_pwhash_OPSLIMIT_INTERACTIVE,
                                  crypto_pwhash_MEMLIMIT_INTERACTIVE) != 0) {
                SystemLog::write("Error: LocalStore: the password cannot be hashed");
                return ResultCode::Failure;
            }
            std::string customerID = "c";
            customerID += randomHex(6);
            if (!db_.addAccount(userName, customerID, hash) || !db_.findAccount(userName, record) ||
                !record)
                return ResultCode::Failure;
            // Another process may have created the same user a moment earlier.
            created = record->customerID == customerID;
        }
        if (!created && crypto_pwhash_str_verify(record->passwordHash.c_str(), password.data(),
                                                 password.size()) != 0) {
            SystemLog::write("LocalStore: logon refused for " + userName);
            return ResultCode::WrongPassword;
        }
        if (!isSafeCustomerID(record->customerID)) {
            SystemLog::write("Error: LocalStore: damaged account record for " + userName);
            return ResultCode::Failure;
        }
        Account account{record->customerID, folder_ + "/accounts/" + record->customerID + "/files",
                        nullptr};
        // The account's root must be a real folder: as a link it could lead anywhere.
        if (!FileSystem::createDirectories(account.filesRoot) ||
            !FileSystem::isDirectory(account.filesRoot)) {
            SystemLog::write("Error: LocalStore: the account folder cannot be made: " +
                             account.filesRoot);
            return ResultCode::NoService;
        }
        keepAccountCopy(account.customerID, userName, record->passwordHash);
        account.root = std::make_shared<OpenFolder>();
        account.root->fd =
            ::open(account.filesRoot.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        {
            std::lock_guard lock(mutex_);
            account_ = account;
            usedBytes_.reset();
            limit_.reset();
        }
        session.sessionID = randomHex(16);
        session.customerID = account.customerID;
        return ResultCode::Success;
    } catch (const std::exception&) {
        SystemLog::write("Error: LocalStore::logon()");
        return ResultCode::Failure;
    }
}

void LocalStore::logoff() {
    totals_.settle();
    saveFolderTotals();
    std::lock_guard lock(mutex_);
    account_.reset();
    usedBytes_.reset();
    limit_.reset();
}

int64_t LocalStore::usedSpace(const Account& account, bool refresh) {
    {
        std::lock_guard lock(mutex_);
        if (usedBytes_ && !refresh)
            return *usedBytes_;
    }
    PartSet parts;
    unfinishedUploads(account, "\\", parts);
    auto used = static_cast<int64_t>(totalsOf(account.filesRoot, "\\", parts).bytes);
    std::lock_guard lock(mutex_);
    if (account_ && account_->customerID == account.customerID)
        usedBytes_ = used;
    return used;
}

void LocalStore::adjustUsedSpace(int64_t change) {
    std::lock_guard lock(mutex_);
    if (usedBytes_)
        *usedBytes_ = std::max<int64_t>(0, *usedBytes_ + change);
}

bool LocalStore::accountLimit(const Account& account, bool refresh, std::optional<int64_t>& limit) {
    {
        std::lock_guard lock(mutex_);
        if (limit_ && !refresh) {
            limit = *limit_;
            return true;
        }
    }
    if (!db_.quota(account.customerID, limit))
        return false;
    std::lock_guard lock(mutex_);
    if (account_ && account_->customerID == account.customerID)
        limit_ = limit;
    return true;
}

int64_t LocalStore::checkSpace(const Account& account, int64_t adding) {
    if (adding <= 0)
        return ResultCode::Success;
    std::optional<int64_t> limit;
    if (!accountLimit(account, false, limit))
        return ResultCode::Failure;
    if (limit) {
        // The figure is kept between calls (a walk of the whole tree per upload would
        // cost too much) and refreshed at logon and by quota().
        if (usedSpace(account, false) + adding > *limit) {
            SystemLog::write("LocalStore: the account's quota would be passed");
            return ResultCode::SpaceLimit;
        }
        return ResultCode::Success;
    }
    // Default quota = free space + used space, so only the free space matters. The disk
    // is asked again only once the uploads since its last answer could have taken a
    // quarter of what it had free: a write that fills it still fails with SpaceLimit.
    {
        std::lock_guard lock(mutex_);
        if (freeSeen_ && writtenSinceFreeSeen_ + static_cast<uint64_t>(adding) <= *freeSeen_ / 4) {
            writtenSinceFreeSeen_ += static_cast<uint64_t>(adding);
            return ResultCode::Success;
        }
    }
    auto available = FileSystem::availableSpace(account.filesRoot);
    {
        std::lock_guard lock(mutex_);
        freeSeen_ = available;
        writtenSinceFreeSeen_ = 0;
    }
    if (available && static_cast<uint64_t>(adding) > *available) {
        SystemLog::write("LocalStore: the disk holding the store is full");
        return ResultCode::SpaceLimit;
    }
    return ResultCode::Success;
}

int64_t LocalStore::quota(StoreQuota& quota) {
    try {
        quota = {};
        auto account = currentAccount();
        if (!account)
            return ResultCode::NotLoggedOn;
        std::optional<int64_t> limit;
        if (!accountLimit(*account, true, limit))
            return ResultCode::Failure;
        quota.usedSpace = usedSpace(*account, true);
        if (limit) {
            quota.maxSpace = *limit;
        } else {
            auto available = FileSystem::availableSpace(account->filesRoot);
            quota.maxSpace = quota.usedSpace + static_cast<int64_t>(available.value_or(0));
        }
        return ResultCode::Success;
    } catch (const std::exception&) {
        SystemLog::write("Error: LocalStore::quota()");
        return ResultCode::Failure;
    }
}

int64_t LocalStore::setQuota(int64_t maxBytes) {
    try {
        auto account = currentAccount();
        if (!account)
            return ResultCode::NotLoggedOn;
        std::optional<int64_t> limit;
        if (maxBytes != DiskQuota) {
            if (maxBytes < 0)
                return ResultCode::BadRequest;
            limit = maxBytes;
        }
        if (!db_.setQuota(account->customerID, limit))
            return ResultCode::Failure;
        std::lock_guard lock(mutex_);
        limit_.reset();
        return ResultCode::Success;
    } catch (const std::exception&) {
        SystemLog::write("Error: LocalStore::setQuota()");
        return ResultCode::Failure;
    }
}

int64_t LocalStore::readTaskList(std::string& document, std::string& version) {
    try {
        document.clear();
        version.clear();
        auto account = currentAccount();
        if (!account)
            return ResultCode::NotLoggedOn;
        return db_.readTaskList(account->customerID, document, version) ? ResultCode::Success
                                                                        : ResultCode::StorageError;
    } catch (const std::exception&) {
        SystemLog::write("Error: LocalStore::readTaskList()");
        return ResultCode::Failure;
    }
}

int64_t LocalStore::writeTaskList(const std::string& document, const std::string& expectedVersion) {
    try {
        auto account = currentAccount();
        if (!account)
            return ResultCode::NotLoggedOn;
        int64_t rc = db_.writeTaskList(account->customerID, document, expectedVersion);
        // The task list is worth a sync of its own: it is small and rarely written.
        if (rc == ResultCode::Success) {
            db_.checkpoint();
            keepTaskListCopy(account->customerID, document);
        }
        return rc;
    } catch (const std::exception&) {
        SystemLog::write("Error: LocalStore::writeTaskList()");
        return ResultCode::Failure;
    }
}

int64_t LocalStore::flush() {
    try {
        auto account = currentAccount();
        if (!account)
            return ResultCode::NotLoggedOn;
        int fd = ::open(account->filesRoot.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        bool synced = fd >= 0 && ::syncfs(fd) == 0;
        if (fd >= 0)
            ::close(fd);
        if (!synced) {
            SystemLog::write("Error: LocalStore: the store cannot be synced: " +
                             FileSystem::lastErrorText());
            return ResultCode::Failure;
        }
        saveFolderTotals();
        return db_.checkpoint() ? ResultCode::Success : ResultCode::Failure;
    } catch (const std::exception&) {
        SystemLog::write("Error: LocalStore::flush()");
        return ResultCode::Failure;
    }
}

} // namespace cirrovault

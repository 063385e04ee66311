// Keeping the store's records recoverable: each account folder holds a copy of what
// the database alone would otherwise know (who the account belongs to, its task list),
// so a lost or damaged store.db never makes the files look like a new, empty account.
#include <algorithm>
#include <ctime>
#include <exception>
#include <memory>

#include <fcntl.h>
#include <sodium.h>
#include <unistd.h>

#include "platform/os/ResultCodes.h"
#include "platform/os/SystemLog.h"
#include "platform/store/local/LocalStore.h"

namespace cirrovault {

namespace {

constexpr const char* AccountCopy = "account";       // user name and password hash, 0600
constexpr const char* TaskListCopy = "tasklist.xml"; // the task-list document

std::string accountFolder(const std::string& store, const std::string& customerID) {
    return store + "/accounts/" + customerID;
}

// The user name and password hash kept beside the account's files.
bool readAccountCopy(const std::string& folder, std::string& userName, std::string& hash) {
    auto text = FileSystem::readFile(folder + "/" + AccountCopy);
    if (!text)
        return false;
    auto cut = text->find('\n');
    if (cut == std::string::npos || cut == 0)
        return false;
    userName = text->substr(0, cut);
    hash = text->substr(cut + 1);
    if (!hash.empty() && hash.back() == '\n')
        hash.pop_back();
    return !hash.empty() && hash.find('\n') == std::string::npos;
}

// Checked before SQLite opens the file: with a journal left beside it, opening a foreign
// file would write the journal's pages into it.
bool hasDatabaseHeader(const std::string& file) {
    static constexpr char Header[] = "SQLite format 3";
    char head[sizeof Header] = {};
    int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    bool ok = ::read(fd, head, sizeof head) == static_cast<ssize_t>(sizeof head) &&
              std::equal(head, head + sizeof head, Header);
    ::close(fd);
    return ok;
}

// A free name beside file for setting it aside; never one used before.
std::string asideName(const std::string& file) {
    std::string base = file + ".damaged-" + std::to_string(std::time(nullptr));
    std::string name = base;
    for (int n = 2; FileSystem::exists(name) || FileSystem::exists(name + "-wal"); ++n)
        name = base + "-" + std::to_string(n);
    return name;
}

} // namespace

std::vector<std::string> LocalStore::accountsOnDisk(const std::string& folder) {
    std::vector<std::string> found;
    for (const auto& name : FileSystem::listDirectory(folder + "/accounts").value_or(std::vector<std::string>{}))
        if (isSafeCustomerID(name) && FileSystem::isDirectory(accountFolder(folder, name) + "/files"))
            found.push_back(name);
    std::sort(found.begin(), found.end());
    return found;
}

int64_t LocalStore::openRecords() {
    const std::string file = folder_ + "/store.db";
    const auto onDisk = accountsOnDisk(folder_);
    auto status = FileSystem::status(file);
    // Opening an empty or missing file would make a fresh database: every account there
    // would start again as new and empty, its backups out of sight.
    if (!onDisk.empty() && (!status || status->size == 0)) {
        SystemLog::write("Error: LocalStore: " + file + " is " + (status ? "empty" : "missing") +
                         ", yet the store holds the files of " + std::to_string(onDisk.size()) +
                         " account(s); it is left as it is");
        return ResultCode::StoreDamaged;
    }
    if (status && status->size > 0 && !hasDatabaseHeader(file)) {
        SystemLog::write("Error: LocalStore: " + file + " is no database; it is left as it is");
        return ResultCode::StoreDamaged;
    }
    bool damaged = false;
    if (!db_.open(file, &damaged)) {
        if (damaged)
            SystemLog::write("Error: LocalStore: " + file + " is damaged; it is left as it is");
        return damaged ? ResultCode::StoreDamaged : ResultCode::NoService;
    }
    int64_t accounts = 0;
    if (!onDisk.empty() && db_.accountCount(accounts) && accounts == 0) {
        SystemLog::write("Error: LocalStore: " + file + " knows no account, yet the store holds the "
                         "files of " + std::to_string(onDisk.size()) + " account(s)");
        return ResultCode::StoreDamaged;
    }
    return ResultCode::Success;
}

void LocalStore::keepAccountCopy(const std::string& customerID, const std::string& userName,
                                 const std::string& passwordHash) {
    const std::string folder = accountFolder(folder_, customerID);
    if (userName.find('\n') != std::string::npos)
        return;
    std::string keptName, keptHash;
    if (!readAccountCopy(folder, keptName, keptHash) || keptName != userName || keptHash != passwordHash)
        if (!FileSystem::writePrivateFileAtomically(folder + "/" + AccountCopy,
                                                    userName + "\n" + passwordHash + "\n"))
            SystemLog::write("Error: LocalStore: the account's copy cannot be written in " + folder);
    if (!FileSystem::exists(folder + "/" + TaskListCopy)) {
        std::string document, version;
        if (db_.readTaskList(customerID, document, version) && !version.empty())
            keepTaskListCopy(customerID, document);
    }
}

void LocalStore::keepTaskListCopy(const std::string& customerID, const std::string& document) {
    const std::string file = accountFolder(folder_, customerID) + "/" + TaskListCopy;
    // It names the user's folders: the owner's only, like the account's copy.
    if (!FileSystem::writePrivateFileAtomically(file, document))
        SystemLog::write("Error: LocalStore: the task list's copy cannot be written: " + file);
}

int64_t LocalStore::repair(const std::string& folder, const std::string& userName,
                           const std::function<std::optional<std::string>()>& password,
                           std::vector<std::string>& report) {
    try {
        report.clear();
        const auto onDisk = accountsOnDisk(folder);
        if (onDisk.empty()) {
            report.push_back("the store in " + folder + " keeps no account's files: nothing to rebuild");
            return ResultCode::NotFound;
        }
        const std::string file = folder + "/store.db";
        auto db = std::make_unique<LocalStoreDatabase>();
        auto status = FileSystem::status(file);
        bool usable = status && status->size > 0 && hasDatabaseHeader(file) && db->open(file) &&
                      db->integrityOk();
        if (!usable) {
            // Set aside, never deleted: it may still hold something worth a specialist's look.
            db = std::make_unique<LocalStoreDatabase>();
            const std::string aside = asideName(file);
            for (const char* suffix : {"", "-wal", "-shm"})
                if (FileSystem::exists(file + suffix) && !FileSystem::moveItem(file + suffix, aside + suffix)) {
                    report.push_back("cannot move " + file + suffix + " aside: " + FileSystem::lastErrorText());
                    return ResultCode::Failure;
                }
            if (status)
                report.push_back("the damaged records were moved to " + aside);
            if (!db->open(file))
                return ResultCode::Failure;
        }
        if (sodium_init() < 0)
            return ResultCode::Failure;
        std::vector<std::string> orphans;
        for (const auto& id : onDisk) {
            std::string name, hash;
            if (db->accountOf(id, name, hash))
                continue; // known already
            if (readAccountCopy(accountFolder(folder, id), name, hash) && db->addAccount(name, id, hash)) {
                report.push_back("account " + id + " of " + name + ": restored");
            } else {
                orphans.push_back(id);
            }
        }
        bool complete = true;
        std::optional<LocalAccountRecord> taken;
        if (orphans.size() == 1 && !userName.empty() && db->findAccount(userName, taken) && !taken) {
            // Kept by an older version without a copy of its owner: the one account left
            // goes to the user who asks, with the password given now.
            auto secret = password();
            char hash[crypto_pwhash_STRBYTES];
            if (!secret || crypto_pwhash_str(hash, secret->data(), secret->size(),
                                             crypto_pwhash_OPSLIMIT_INTERACTIVE,
                                             crypto_pwhash_MEMLIMIT_INTERACTIVE) != 0 ||
                !db->addAccount(userName, orphans[0], hash)) {
                report.push_back("account " + orphans[0] + ": no password to give it to " + userName);
                complete = false;
            } else {
                report.push_back("account " + orphans[0] + ": given to " + userName +
                                 " with the password given now");
            }
        } else {
            for (const auto& id : orphans)
                report.push_back("account " + id + ": no record of its user is kept; run repair again "
                                 "with --user NAME when it is the only such account");
            complete = orphans.empty();
        }
        for (const auto& id : onDisk) {
            std::string document, version;
            if (!db->readTaskList(id, document, version) || !version.empty())
                continue;
            if (auto kept = FileSystem::readFile(accountFolder(folder, id) + "/" + TaskListCopy)) {
                if (db->writeTaskList(id, *kept, "") == ResultCode::Success)
                    report.push_back("account " + id + ": its task list is back");
                else
                    complete = false;
            } else {
                report.push_back("account " + id + ": no copy of its task list was kept; its files "
                                 "are there, its tasks must be made again");
            }
        }
        db->checkpoint();
        return complete ? ResultCode::Success : ResultCode::Failure;
    } catch (const std::exception&) {
        SystemLog::write("Error: LocalStore::repair()");
        return ResultCode::Failure;
    }
}

} // namespace cirrovault

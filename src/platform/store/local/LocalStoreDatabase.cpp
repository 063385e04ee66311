#include "platform/store/local/LocalStoreDatabase.h"

#include <chrono>
#include <cstring>
#include <thread>
#include <unordered_map>

#include <sqlite3.h>

#include "platform/os/ResultCodes.h"
#include "platform/os/SystemLog.h"

namespace cirrovault {

namespace {

// Waits this long for another connection's write lock before giving up.
constexpr int BusyTimeoutMs = 30'000;

// One prepared statement, borrowed from the connection's cache and given back reset when
// it goes out of scope. A text in use already (the same statement twice at once) gets a
// fresh one, which later stays in the cache if that has none.
class Statement {
public:
    using Cache = std::unordered_map<std::string, sqlite3_stmt*>;

    Statement(sqlite3* db, Cache& cache, const std::string& sql) : cache_(&cache) {
        node_ = cache.extract(sql);
        if (node_.empty()) {
            sqlite3_stmt* stmt = nullptr;
            if (sqlite3_prepare_v3(db, sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &stmt,
                                   nullptr) != SQLITE_OK) {
                sqlite3_finalize(stmt);
                return;
            }
            Cache one{{sql, stmt}};
            node_ = one.extract(one.begin());
        }
        stmt_ = node_.mapped();
    }
    ~Statement() {
        if (!stmt_)
            return;
        sqlite3_reset(stmt_);
        sqlite3_clear_bindings(stmt_);
        if (!cache_->insert(std::move(node_)).inserted)
            sqlite3_finalize(stmt_);
    }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    bool ok() const { return stmt_ != nullptr; }
    Statement& bind(int index, const std::string& text) {
        if (stmt_)
            sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()),
                              SQLITE_TRANSIENT);
        return *this;
    }
    Statement& bind(int index, int64_t value) {
        if (stmt_)
            sqlite3_bind_int64(stmt_, index, value);
        return *this;
    }
    Statement& bindNull(int index) {
        if (stmt_)
            sqlite3_bind_null(stmt_, index);
        return *this;
    }
    // SQLITE_ROW, SQLITE_DONE or an error code.
    int step() { return stmt_ ? sqlite3_step(stmt_) : SQLITE_ERROR; }
    // Back to before the first row, the bindings kept, so that some can be changed.
    void rewind() {
        if (stmt_)
            sqlite3_reset(stmt_);
    }
    bool run() { return step() == SQLITE_DONE; }

    std::string text(int column) const {
        auto* p = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, column));
        return p ? std::string(p, static_cast<size_t>(sqlite3_column_bytes(stmt_, column)))
                 : std::string();
    }
    int64_t integer(int column) const { return sqlite3_column_int64(stmt_, column); }
    bool isNull(int column) const { return sqlite3_column_type(stmt_, column) == SQLITE_NULL; }

private:
    Cache* cache_;
    Cache::node_type node_;
    sqlite3_stmt* stmt_ = nullptr;
};

// The prefix that every path strictly inside folder starts with.
std::string insidePrefix(const std::string& folder) {
    return folder == "\\" ? folder : folder + "\\";
}

// Where the paths beneath a folder end, in the primary key's order: every path that
// begins with the prefix (ending in "\") sorts before the prefix with "]" in its place.
std::string pastPrefix(std::string prefix) {
    prefix.back() = ']';
    return prefix;
}

// Matches ?2 itself and everything beneath it, as one range of the primary key: ?3 =
// insidePrefix(?2), ?4 = pastPrefix(?3). bindTree binds them. Written as an OR of the two
// ranges, the planner scanned all of the account's rows instead, once per new folder.
constexpr const char* TreeMatch = "(path >= ?2 AND path < ?4 AND (path = ?2 OR path >= ?3))";

Statement& bindTree(Statement& st, const std::string& folder) {
    const std::string prefix = insidePrefix(folder);
    return st.bind(2, folder).bind(3, prefix).bind(4, pastPrefix(prefix));
}

} // namespace

LocalStoreDatabase::~LocalStoreDatabase() {
    close();
}

void LocalStoreDatabase::close() {
    for (auto& [sql, stmt] : statements_)
        sqlite3_finalize(stmt);
    statements_.clear();
    if (db_)
        sqlite3_close_v2(db_);
    db_ = nullptr;
}

void LocalStoreDatabase::logError(const char* what) {
    SystemLog::write(std::string("Error: store database: ") + what + ": " +
                     (db_ ? sqlite3_errmsg(db_) : "not open"));
}

bool LocalStoreDatabase::execute(const char* sql) {
    if (!std::strchr(sql, ';')) {
        Statement st(db_, statements_, sql);
        if (st.run())
            return true;
        logError(sql);
        return false;
    }
    char* message = nullptr;
    int rc = sqlite3_exec(db_, sql, nullptr, nullptr, &message);
    if (rc != SQLITE_OK) {
        SystemLog::write(std::string("Error: store database: ") + sql + ": " +
                         (message ? message : sqlite3_errstr(rc)));
        sqlite3_free(message);
        return false;
    }
    return true;
}

bool LocalStoreDatabase::commit() {
    if (execute("COMMIT"))
        return true;
    execute("ROLLBACK");
    return false;
}

bool LocalStoreDatabase::open(const std::string& file, bool* damaged) {
    std::lock_guard lock(mutex_);
    if (damaged)
        *damaged = false;
    if (db_)
        return true;
    sqlite3* db = nullptr;
    int rc =
        sqlite3_open_v2(file.c_str(), &db,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc != SQLITE_OK) {
        SystemLog::write("Error: store database cannot be opened: " + file);
        sqlite3_close_v2(db);
        return false;
    }
    db_ = db;
    sqlite3_busy_timeout(db_, BusyTimeoutMs);
    if (!createSchema()) {
        int code = sqlite3_errcode(db_);
        if (damaged)
            *damaged = code == SQLITE_NOTADB || code == SQLITE_CORRUPT;
        SystemLog::write("Error: store database is not usable: " + file);
        close();
        return false;
    }
    return true;
}

bool LocalStoreDatabase::createSchema() {
    // Switching to WAL needs a moment alone with the file; a second process opening the
    // same store at the same time may briefly hold it.
    bool wal = false;
    for (int attempt = 0; attempt < 100 && !wal; ++attempt) {
        Statement mode(db_, statements_, "PRAGMA journal_mode=WAL");
        int rc = mode.step();
        wal = rc == SQLITE_ROW && mode.text(0) == "wal";
        if (!wal && rc != SQLITE_BUSY && rc != SQLITE_LOCKED)
            break; // not a database, or unwritable: waiting will not help
        if (!wal)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (!wal) {
        logError("journal mode");
        return false;
    }
    // Commits are not synced one by one; flush() checkpoints, which syncs them.
    return execute("PRAGMA synchronous=NORMAL") &&
           execute("BEGIN IMMEDIATE;"
                   "CREATE TABLE IF NOT EXISTS accounts(userName TEXT PRIMARY KEY,"
                   " customerID TEXT NOT NULL UNIQUE, passwordHash TEXT NOT NULL,"
                   " quota INTEGER);"
                   "CREATE TABLE IF NOT EXISTS folders(customerID TEXT NOT NULL,"
                   " path TEXT NOT NULL, description TEXT NOT NULL, caption TEXT NOT NULL,"
                   " PRIMARY KEY(customerID, path));"
                   "CREATE TABLE IF NOT EXISTS parts(customerID TEXT NOT NULL,"
                   " path TEXT NOT NULL, resumeTag TEXT NOT NULL,"
                   " PRIMARY KEY(customerID, path));"
                   "CREATE TABLE IF NOT EXISTS taskLists(customerID TEXT PRIMARY KEY,"
                   " document TEXT NOT NULL, version INTEGER NOT NULL);"
                   "CREATE TABLE IF NOT EXISTS folderTotals(folder TEXT PRIMARY KEY,"
                   " record TEXT NOT NULL);"
                   // Stores made before files kept their modes get the table on opening.
                   // Without a rowid a file's row is written once, not also into a key
                   // index: a changed file writes two such rows (its mode, its version's).
                   "CREATE TABLE IF NOT EXISTS fileModes(customerID TEXT NOT NULL,"
                   " path TEXT NOT NULL, mode INTEGER NOT NULL,"
                   " PRIMARY KEY(customerID, path)) WITHOUT ROWID;"
                   "COMMIT;");
}

bool LocalStoreDatabase::isOpen() const {
    std::lock_guard lock(mutex_);
    return db_ != nullptr;
}

bool LocalStoreDatabase::accountCount(int64_t& count) {
    std::lock_guard lock(mutex_);
    count = 0;
    Statement st(db_, statements_, "SELECT count(*) FROM accounts");
    if (st.step() == SQLITE_ROW) {
        count = st.integer(0);
        return true;
    }
    logError("count accounts");
    return false;
}

bool LocalStoreDatabase::integrityOk() {
    std::lock_guard lock(mutex_);
    Statement st(db_, statements_, "PRAGMA integrity_check");
    bool ok = st.step() == SQLITE_ROW && st.text(0) == "ok";
    if (!ok)
        logError("integrity check");
    return ok;
}

bool LocalStoreDatabase::accountOf(const std::string& customerID, std::string& userName,
                                   std::string& passwordHash) {
    std::lock_guard lock(mutex_);
    Statement st(db_, statements_,
                 "SELECT userName, passwordHash FROM accounts WHERE customerID = ?1");
    st.bind(1, customerID);
    int rc = st.step();
    if (rc == SQLITE_ROW) {
        userName = st.text(0);
        passwordHash = st.text(1);
        return true;
    }
    if (rc != SQLITE_DONE)
        logError("read account");
    return false;
}

bool LocalStoreDatabase::findAccount(const std::string& userName,
                                     std::optional<LocalAccountRecord>& account) {
    std::lock_guard lock(mutex_);
    account.reset();
    Statement st(db_, statements_,
                 "SELECT customerID, passwordHash, quota FROM accounts WHERE userName = ?1");
    st.bind(1, userName);
    int rc = st.step();
    if (rc == SQLITE_ROW) {
        LocalAccountRecord record;
        record.customerID = st.text(0);
        record.passwordHash = st.text(1);
        if (!st.isNull(2))
            record.quota = st.integer(2);
        account = std::move(record);
        return true;
    }
    if (rc == SQLITE_DONE)
        return true;
    logError("find account");
    return false;
}

bool LocalStoreDatabase::addAccount(const std::string& userName, const std::string& customerID,
                                    const std::string& passwordHash) {
    std::lock_guard lock(mutex_);
    Statement st(db_, statements_,
                 "INSERT OR IGNORE INTO accounts(userName, customerID, passwordHash)"
                 " VALUES(?1, ?2, ?3)");
    if (st.bind(1, userName).bind(2, customerID).bind(3, passwordHash).run())
        return true;
    logError("add account");
    return false;
}

bool LocalStoreDatabase::setQuota(const std::string& customerID, std::optional<int64_t> quota) {
    std::lock_guard lock(mutex_);
    Statement st(db_, statements_, "UPDATE accounts SET quota = ?2 WHERE customerID = ?1");
    st.bind(1, customerID);
    if (quota)
        st.bind(2, *quota);
    else
        st.bindNull(2);
    if (st.run())
        return true;
    logError("set quota");
    return false;
}

bool LocalStoreDatabase::quota(const std::string& customerID, std::optional<int64_t>& quota) {
    std::lock_guard lock(mutex_);
    quota.reset();
    Statement st(db_, statements_, "SELECT quota FROM accounts WHERE customerID = ?1");
    st.bind(1, customerID);
    int rc = st.step();
    if (rc == SQLITE_ROW && !st.isNull(0))
        quota = st.integer(0);
    if (rc == SQLITE_ROW || rc == SQLITE_DONE)
        return true;
    logError("read quota");
    return false;
}

bool LocalStoreDatabase::setFolderInfo(const std::string& customerID, const std::string& path,
                                       const LocalFolderInfo& info) {
    std::lock_guard lock(mutex_);
    bool ok;
    if (info.description.empty() && info.caption.empty()) {
        Statement st(db_, statements_, "DELETE FROM folders WHERE customerID = ?1 AND path = ?2");
        ok = st.bind(1, customerID).bind(2, path).run();
    } else {
        Statement st(db_, statements_,
                     "INSERT OR REPLACE INTO folders(customerID, path, description, caption)"
                     " VALUES(?1, ?2, ?3, ?4)");
        ok = st.bind(1, customerID)
                 .bind(2, path)
                 .bind(3, info.description)
                 .bind(4, info.caption)
                 .run();
    }
    if (!ok)
        logError("set folder information");
    return ok;
}

bool LocalStoreDatabase::folderInfo(const std::string& customerID, const std::string& path,
                                    LocalFolderInfo& info) {
    std::lock_guard lock(mutex_);
    info = {};
    Statement st(db_, statements_,
                 "SELECT description, caption FROM folders WHERE customerID = ?1 AND path = ?2");
    st.bind(1, customerID).bind(2, path);
    int rc = st.step();
    if (rc == SQLITE_ROW) {
        info.description = st.text(0);
        info.caption = st.text(1);
    }
    if (rc == SQLITE_ROW || rc == SQLITE_DONE)
        return true;
    logError("read folder information");
    return false;
}

bool LocalStoreDatabase::folderInfosInside(const std::string& customerID, const std::string& folder,
                                           std::map<std::string, LocalFolderInfo>& infos) {
    std::lock_guard lock(mutex_);
    infos.clear();
    Statement st(db_, statements_,
                 "SELECT path, description, caption FROM folders WHERE customerID = ?1"
                 " AND path >= ?3 AND path < ?4"
                 " AND instr(substr(path, length(?3) + 1), '\\') = 0");
    bindTree(st.bind(1, customerID), folder);
    int rc;
    while ((rc = st.step()) == SQLITE_ROW)
        infos[st.text(0)] = LocalFolderInfo{st.text(1), st.text(2)};
    if (rc == SQLITE_DONE)
        return true;
    logError("list folder information");
    return false;
}

bool LocalStoreDatabase::partTag(const std::string& customerID, const std::string& path,
                                 std::optional<std::string>& tag) {
    std::lock_guard lock(mutex_);
    tag.reset();
    Statement st(db_, statements_,
                 "SELECT resumeTag FROM parts WHERE customerID = ?1 AND path = ?2");
    st.bind(1, customerID).bind(2, path);
    int rc = st.step();
    if (rc == SQLITE_ROW)
        tag = st.text(0);
    if (rc == SQLITE_ROW || rc == SQLITE_DONE)
        return true;
    logError("read resume tag");
    return false;
}

bool LocalStoreDatabase::setPartTag(const std::string& customerID, const std::string& path,
                                    const std::string& tag) {
    std::lock_guard lock(mutex_);
    Statement st(db_, statements_,
                 "INSERT OR REPLACE INTO parts(customerID, path, resumeTag) VALUES(?1, ?2, ?3)");
    if (st.bind(1, customerID).bind(2, path).bind(3, tag).run())
        return true;
    logError("write resume tag");
    return false;
}

bool LocalStoreDatabase::removePartTag(const std::string& customerID, const std::string& path) {
    std::lock_guard lock(mutex_);
    Statement st(db_, statements_, "DELETE FROM parts WHERE customerID = ?1 AND path = ?2");
    if (st.bind(1, customerID).bind(2, path).run())
        return true;
    logError("remove resume tag");
    return false;
}

bool LocalStoreDatabase::partPathsInside(const std::string& customerID, const std::string& folder,
                                         std::unordered_set<std::string>& paths) {
    std::lock_guard lock(mutex_);
    paths.clear();
    Statement st(
        db_, statements_,
        std::string("SELECT path FROM parts WHERE customerID = ?1 AND ").append(TreeMatch).c_str());
    bindTree(st.bind(1, customerID), folder);
    int rc;
    while ((rc = st.step()) == SQLITE_ROW)
        paths.insert(st.text(0));
    if (rc == SQLITE_DONE)
        return true;
    logError("list resume tags");
    return false;
}

bool LocalStoreDatabase::moveTree(const std::string& customerID, const std::string& from,
                                  const std::string& to) {
    std::lock_guard lock(mutex_);
    if (!execute("BEGIN IMMEDIATE"))
        return false;
    bool ok = true;
    for (const char* table : {"folders", "parts", "fileModes"}) {
        std::string sql = std::string("UPDATE OR REPLACE ") + table +
                          " SET path = ?5 || substr(path, length(?2) + 1)"
                          " WHERE customerID = ?1 AND " +
                          TreeMatch;
        Statement st(db_, statements_, sql.c_str());
        ok = ok && bindTree(st.bind(1, customerID).bind(5, to), from).run();
    }
    if (!ok) {
        logError("move rows");
        execute("ROLLBACK");
        return false;
    }
    return commit();
}

bool LocalStoreDatabase::copyFolderInfos(const std::string& customerID, const std::string& from,
                                         const std::string& to) {
    std::lock_guard lock(mutex_);
    Statement st(db_, statements_,
                 std::string("INSERT OR REPLACE INTO folders(customerID, path, description,"
                             " caption) SELECT customerID, ?5 || substr(path, length(?2) + 1),"
                             " description, caption FROM folders WHERE customerID = ?1 AND ")
                     .append(TreeMatch)
                     .c_str());
    Statement modes(db_, statements_,
                    std::string("INSERT OR REPLACE INTO fileModes(customerID, path, mode)"
                                " SELECT customerID, ?5 || substr(path, length(?2) + 1), mode"
                                " FROM fileModes WHERE customerID = ?1 AND ")
                        .append(TreeMatch)
                        .c_str());
    if (bindTree(st.bind(1, customerID).bind(5, to), from).run() &&
        bindTree(modes.bind(1, customerID).bind(5, to), from).run())
        return true;
    logError("copy folder information");
    return false;
}

bool LocalStoreDatabase::setFileMode(const std::string& customerID, const std::string& path,
                                     uint32_t mode) {
    std::lock_guard lock(mutex_);
    return writeFileMode(customerID, path, mode);
}

bool LocalStoreDatabase::writeFileMode(const std::string& customerID, const std::string& path,
                                       uint32_t mode) {
    bool ok;
    if (mode == 0) {
        Statement st(db_, statements_, "DELETE FROM fileModes WHERE customerID = ?1 AND path = ?2");
        ok = st.bind(1, customerID).bind(2, path).run();
    } else {
        Statement st(db_, statements_,
                     "INSERT OR REPLACE INTO fileModes(customerID, path, mode)"
                     " VALUES(?1, ?2, ?3)");
        ok = st.bind(1, customerID).bind(2, path).bind(3, static_cast<int64_t>(mode)).run();
    }
    if (!ok)
        logError("set file mode");
    return ok;
}

bool LocalStoreDatabase::setNewFileMode(const std::string& customerID, const std::string& path,
                                        uint32_t mode, bool& uploading) {
    std::lock_guard lock(mutex_);
    uploading = false;
    if (!execute("BEGIN IMMEDIATE"))
        return false;
    int rc;
    {
        Statement st(db_, statements_, "SELECT 1 FROM parts WHERE customerID = ?1 AND path = ?2");
        rc = st.bind(1, customerID).bind(2, path).step();
    }
    uploading = rc == SQLITE_ROW;
    if ((rc != SQLITE_ROW && rc != SQLITE_DONE) ||
        (!uploading && !writeFileMode(customerID, path, mode))) {
        logError("set new file mode");
        execute("ROLLBACK");
        return false;
    }
    return commit();
}

bool LocalStoreDatabase::fileModesInside(const std::string& customerID, const std::string& folder,
                                         std::map<std::string, uint32_t>& modes) {
    std::lock_guard lock(mutex_);
    modes.clear();
    Statement self(db_, statements_,
                   "SELECT mode FROM fileModes WHERE customerID = ?1 AND path = ?2");
    int rc = self.bind(1, customerID).bind(2, folder).step();
    if (rc == SQLITE_ROW)
        modes[folder] = static_cast<uint32_t>(self.integer(0));
    else if (rc != SQLITE_DONE) {
        logError("list file modes");
        return false;
    }
    // Only the folder's own entries: a row beneath a sub-folder makes the scan jump past
    // that sub-folder's rows, so a listing near the top does not read the whole tree.
    const std::string prefix = insidePrefix(folder);
    Statement st(db_, statements_,
                 "SELECT path, mode FROM fileModes WHERE customerID = ?1"
                 " AND path >= ?2 AND path < ?3");
    st.bind(1, customerID).bind(2, prefix).bind(3, pastPrefix(prefix));
    while ((rc = st.step()) == SQLITE_ROW) {
        std::string path = st.text(0);
        size_t below = path.find('\\', prefix.size());
        if (below == std::string::npos) {
            modes[path] = static_cast<uint32_t>(st.integer(1));
            continue;
        }
        path.resize(below + 1);
        st.rewind();
        st.bind(2, pastPrefix(path));
    }
    if (rc == SQLITE_DONE)
        return true;
    logError("list file modes");
    return false;
}

bool LocalStoreDatabase::removeTree(const std::string& customerID, const std::string& path) {
    std::lock_guard lock(mutex_);
    if (!execute("BEGIN IMMEDIATE"))
        return false;
    bool ok = true;
    for (const char* table : {"folders", "parts", "fileModes"}) {
        std::string sql =
            std::string("DELETE FROM ") + table + " WHERE customerID = ?1 AND " + TreeMatch;
        Statement st(db_, statements_, sql.c_str());
        ok = ok && bindTree(st.bind(1, customerID), path).run();
    }
    if (!ok) {
        logError("remove rows");
        execute("ROLLBACK");
        return false;
    }
    return commit();
}

bool LocalStoreDatabase::readTaskList(const std::string& customerID, std::string& document,
                                      std::string& version) {
    std::lock_guard lock(mutex_);
    document.clear();
    version.clear();
    Statement st(db_, statements_, "SELECT document, version FROM taskLists WHERE customerID = ?1");
    st.bind(1, customerID);
    int rc = st.step();
    if (rc == SQLITE_ROW) {
        document = st.text(0);
        version = std::to_string(st.integer(1));
    }
    if (rc == SQLITE_ROW || rc == SQLITE_DONE)
        return true;
    logError("read task list");
    return false;
}

int64_t LocalStoreDatabase::writeTaskList(const std::string& customerID,
                                          const std::string& document,
                                          const std::string& expectedVersion) {
    std::lock_guard lock(mutex_);
    // The write lock is taken before the version is read, so the check and the write
    // are one step for every process sharing the store.
    if (!execute("BEGIN IMMEDIATE"))
        return ResultCode::StorageError;
    std::string stored;
    int64_t next = 1;
    {
        Statement st(db_, statements_, "SELECT version FROM taskLists WHERE customerID = ?1");
        st.bind(1, customerID);
        int rc = st.step();
        if (rc == SQLITE_ROW) {
            stored = std::to_string(st.integer(0));
            next = st.integer(0) + 1;
        } else if (rc != SQLITE_DONE) {
            logError("read task-list version");
            execute("ROLLBACK");
            return ResultCode::StorageError;
        }
    }
    if (stored != expectedVersion) {
        execute("ROLLBACK");
        return ResultCode::Conflict;
    }
    Statement st(db_, statements_,
                 "INSERT OR REPLACE INTO taskLists(customerID, document, version)"
                 " VALUES(?1, ?2, ?3)");
    if (!st.bind(1, customerID).bind(2, document).bind(3, next).run()) {
        logError("write task list");
        execute("ROLLBACK");
        return ResultCode::StorageError;
    }
    return commit() ? ResultCode::Success : ResultCode::StorageError;
}

bool LocalStoreDatabase::folderTotals(std::vector<std::pair<std::string, std::string>>& rows) {
    std::lock_guard lock(mutex_);
    rows.clear();
    Statement st(db_, statements_, "SELECT folder, record FROM folderTotals");
    int rc;
    while ((rc = st.step()) == SQLITE_ROW)
        rows.emplace_back(st.text(0), st.text(1));
    if (rc == SQLITE_DONE)
        return true;
    logError("read folder totals");
    return false;
}

bool LocalStoreDatabase::replaceFolderTotals(
    const std::vector<std::pair<std::string, std::string>>& changed,
    const std::vector<std::string>& gone) {
    std::lock_guard lock(mutex_);
    if (changed.empty() && gone.empty())
        return true;
    if (!execute("BEGIN IMMEDIATE"))
        return false;
    bool ok = true;
    {
        for (const auto& [folder, record] : changed) {
            Statement one(db_, statements_,
                          "INSERT OR REPLACE INTO folderTotals(folder, record) VALUES(?1, ?2)");
            ok = ok && one.bind(1, folder).bind(2, record).run();
        }
        for (const auto& folder : gone) {
            Statement drop(db_, statements_, "DELETE FROM folderTotals WHERE folder = ?1");
            ok = ok && drop.bind(1, folder).run();
        }
    }
    if (!ok) {
        logError("write folder totals");
        execute("ROLLBACK");
        return false;
    }
    return commit();
}

bool LocalStoreDatabase::checkpoint() {
    std::lock_guard lock(mutex_);
    int logFrames = 0;
    int done = 0;
    // Another process checkpointing at the same moment answers busy at once (a passive
    // checkpoint does not wait): try again for a bounded while.
    int rc = SQLITE_BUSY;
    for (int attempt = 0; attempt < 100 && rc == SQLITE_BUSY; ++attempt) {
        if (attempt > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        rc = sqlite3_wal_checkpoint_v2(db_, nullptr, SQLITE_CHECKPOINT_PASSIVE, &logFrames, &done);
    }
    if (rc == SQLITE_OK)
        return true;
    logError("checkpoint");
    return false;
}

} // namespace cirrovault

#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace cirrovault {

struct LocalAccountRecord {
    std::string customerID;
    std::string passwordHash;
    std::optional<int64_t> quota; // none: what the disk can hold
};

struct LocalFolderInfo {
    std::string description;
    std::string caption;
};

// The local store's metadata in one SQLite file ("store.db"): accounts, folder
// descriptions, quotas, the task-list document and the resume tags of unfinished
// uploads. WAL mode and a generous busy timeout let several processes use one store.
// Paths are canonical server paths ("\a\b"). Every method answers false (or Failure)
// after logging the database's message; none throws.
class LocalStoreDatabase {
public:
    LocalStoreDatabase() = default;
    ~LocalStoreDatabase();
    LocalStoreDatabase(const LocalStoreDatabase&) = delete;
    LocalStoreDatabase& operator=(const LocalStoreDatabase&) = delete;

    // Opens (creating when missing) the database file and its tables. When it fails,
    // damaged tells whether the file is there but is no database or a broken one.
    bool open(const std::string& file, bool* damaged = nullptr);
    bool isOpen() const;
    bool accountCount(int64_t& count);
    // PRAGMA integrity_check answers "ok".
    bool integrityOk();

    bool findAccount(const std::string& userName, std::optional<LocalAccountRecord>& account);
    // Adds the account unless the name exists already (another process may have won).
    bool addAccount(const std::string& userName, const std::string& customerID,
                    const std::string& passwordHash);
    // The user name and password hash of the account with that customer ID.
    bool accountOf(const std::string& customerID, std::string& userName, std::string& passwordHash);
    bool setQuota(const std::string& customerID, std::optional<int64_t> quota);
    bool quota(const std::string& customerID, std::optional<int64_t>& quota);

    // Empty description and caption drop the row.
    bool setFolderInfo(const std::string& customerID, const std::string& path,
                       const LocalFolderInfo& info);
    bool folderInfo(const std::string& customerID, const std::string& path, LocalFolderInfo& info);
    // The folders with a description or caption directly inside folder, by path.
    bool folderInfosInside(const std::string& customerID, const std::string& folder,
                           std::map<std::string, LocalFolderInfo>& infos);

    // A stored file's st_mode (type and permission bits), 0 when unknown; 0 drops the row.
    bool setFileMode(const std::string& customerID, const std::string& path, uint32_t mode);
    // setFileMode for a new file, unless an unfinished upload of path has a row (uploading
    // is then true and nothing is written): one transaction, not a lookup and a write.
    bool setNewFileMode(const std::string& customerID, const std::string& path, uint32_t mode,
                        bool& uploading);
    // The modes of path itself and of the files directly inside it, by path.
    bool fileModesInside(const std::string& customerID, const std::string& folder,
                         std::map<std::string, uint32_t>& modes);

    bool partTag(const std::string& customerID, const std::string& path,
                 std::optional<std::string>& tag);
    bool setPartTag(const std::string& customerID, const std::string& path, const std::string& tag);
    bool removePartTag(const std::string& customerID, const std::string& path);
    // Target paths (not ".part" names) of the unfinished uploads at or inside folder.
    bool partPathsInside(const std::string& customerID, const std::string& folder,
                         std::unordered_set<std::string>& paths);

    // The rows of a tree follow its move or copy, and go with its removal.
    bool moveTree(const std::string& customerID, const std::string& from, const std::string& to);
    // Folder descriptions and file modes.
    bool copyFolderInfos(const std::string& customerID, const std::string& from,
                         const std::string& to);
    bool removeTree(const std::string& customerID, const std::string& path);

    // version is "" when the account has no document yet.
    bool readTaskList(const std::string& customerID, std::string& document, std::string& version);
    // Success, Conflict (the stored version is not expectedVersion) or StorageError.
    int64_t writeTaskList(const std::string& customerID, const std::string& document,
                          const std::string& expectedVersion);

    // The remembered figures of the store's folders (LocalFolderTotals), as folder path
    // (relative to the store) and record text. Replacing writes changed and drops gone
    // rows in one transaction.
    bool folderTotals(std::vector<std::pair<std::string, std::string>>& rows);
    bool replaceFolderTotals(const std::vector<std::pair<std::string, std::string>>& changed,
                             const std::vector<std::string>& gone);

    // Writes the journal into the database file; both are synced on the way.
    bool checkpoint();

private:
    bool execute(const char* sql);
    bool commit(); // rolls back when the commit fails
    bool writeFileMode(const std::string& customerID, const std::string& path, uint32_t mode);
    bool createSchema();
    void logError(const char* what);
    void close(); // the statements first, then the connection

    mutable std::mutex mutex_; // serialises use of the connection
    sqlite3* db_ = nullptr;    // guarded by mutex_
    // Prepared once per connection and reused by their text: preparing costs more than
    // running the lookups and inserts an upload makes.
    std::unordered_map<std::string, sqlite3_stmt*> statements_; // guarded by mutex_
};

} // namespace cirrovault

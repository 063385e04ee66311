#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "HostSession.h"
#include "platform/framework/PathInfo.h"
#include "platform/view/ViewBackend.h"

namespace cirrovault {
class TrueProgressCallback;
}

namespace cirrovault::cli {

// Where the pass phrase of an encrypted task comes from, as the user said.
struct PassPhraseOptions {
    std::string file;  // --passphrase-file
    bool keep = false; // --keep-passphrase: remember it on this computer
    // A host's own prompt (the desktop's dialog), asked instead of the terminal when the
    // kept phrase is missing or wrong; nothing = cancelled.
    std::function<std::optional<std::string>(const std::string& question)> ask;
};

// One stored file and the place it is restored to.
struct RestoreItem {
    std::string server;
    std::string local;
    uint64_t size = 0;
    Date modifyTime;
};

// What a restore did with its items.
struct RestoreOutcome {
    std::vector<std::string> restored, kept, failed;
    std::vector<std::string> incomplete; // restored, but a link, mode or time could not be set
    uint64_t bytesRestored = 0;
    bool cancelled = false;
};

// One older version of a file, kept in the task's history folder as baseK.ext.
struct FileVersion {
    int number = 0;
    PathInfo info;
};

// Where a task's files and their versions lie on the service, as the manager tells
// the restore view, how the user's paths map onto them, and how they are read back
// (with an encrypted task's pass phrase).
class RestoreSupport {
public:
    RestoreSupport(HostSession& session, const HostSession::TaskPtr& task);
    ~RestoreSupport(); // removes the scratch folder
    RestoreSupport(const RestoreSupport&) = delete;
    RestoreSupport& operator=(const RestoreSupport&) = delete;

    // A path the user gave (absolute local, or relative to the folder above the task's
    // first source: "Documents/a.txt") as a relative path with "/"; throws CliError
    // when it is outside the task.
    std::string relative(const std::string& path) const;
    std::string serverPathOf(const std::string& relativePath) const;
    // Every file of the task on the service, relative paths with "/", sorted.
    std::vector<std::pair<std::string, PathInfo>> files() const;
    // The older versions of one file, oldest number first.
    std::vector<FileVersion> versions(const std::string& relativePath) const;
    std::string versionPath(const std::string& relativePath, int number) const;

    // The source files that the task's next run would send (new, or changed since the
    // service got them), by the run's own scan and change test, and their bytes; throws
    // CliError when the sources cannot be read.
    static std::vector<std::string> pendingFiles(const HostSession::TaskPtr& task, uint64_t& bytes);

    bool encrypted() const;
    // The smallest current file of the task, to try a pass phrase on; "" when none.
    std::string sampleFile() const;
    // The pass phrase this command uses ("" for a plain task), tried on the sample file
    // before anything is written (asked up to three times at a terminal). Throws
    // CliError (Exit::Logon) when there is none or it does not open the task's files.
    std::string passPhrase(const PassPhraseOptions& options, const std::string& sample);
    // Remembers the phrase for the task on this computer (later runs, the daemon).
    void keepPassPhrase(const std::string& phrase) const;

    // Writes one stored file at localPath with its stored time: the one place a restored
    // file is made. Answers a result code; with notAsItWas, the file then becomes what was
    // stored (a link, its mode, modifyTime) and notAsItWas says what could not be set.
    int64_t restoreFile(const std::string& serverPath, const std::string& localPath, const std::string& passPhrase,
                        TrueProgressCallback* progress, Date modifyTime = Date(),
                        std::string* notAsItWas = nullptr) const;
    // Restores the items on a worker while the restore window runs modally on this
    // thread; an item whose place is taken is kept unless overwrite. Cancel (with its
    // question), SIGINT and SIGTERM stop it, also in the middle of a file.
    RestoreOutcome restoreItems(const std::vector<RestoreItem>& items, const std::string& to, bool overwrite,
                                const std::string& passPhrase, const std::shared_ptr<ViewBackend>& backend) const;
    // Reads one stored file back (decrypted and checked) into a scratch file that the
    // caller removes; answers a result code and the scratch file's path.
    int64_t readBack(const std::string& serverPath, const std::string& passPhrase, std::string& copy);

    const std::string& serverFolder() const { return serverFolder_; }
    const std::string& historyFolder() const { return historyFolder_; }
    const std::string& localTop() const { return localTop_; }

private:
    std::string versionFolder(const std::string& relativePath) const;
    // Whether the phrase opens the stored file (read back and thrown away).
    bool opens(const std::string& serverPath, const std::string& phrase);

    HostSession::TaskPtr task_;
    std::string accountFolder_;
    std::string scratch_; // made on first use
    int scratchCount_ = 0;
    std::string serverFolder_;
    std::string historyFolder_;
    std::string localTop_;
};

} // namespace cirrovault::cli

#include "RestoreSupport.h"

#include <algorithm>
#include <atomic>
#include <limits>
#include <cstdio>
#include <unistd.h>

#include "Credentials.h"
#include "Output.h"
#include "Signals.h"
#include "engine/task/VersionNames.h"
#include "platform/framework/Functions.h"
#include "platform/framework/PasswordMan.h"
#include "platform/framework/PathTreeController.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/ServerName.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/framework/TransferInfo.h"
#include "platform/os/FileSystem.h"
#include "platform/store/StorePath.h"
#include "support/CFileInfo.h"
#include "support/RestoredItem.h"
#include "ui/CDownloadFileController.h"

namespace cirrovault::cli {

namespace {

std::string trimSlashes(std::string path) {
    while (!path.empty() && path.front() == '/')
        path.erase(0, 1);
    while (!path.empty() && path.back() == '/')
        path.pop_back();
    return path;
}

} // namespace

RestoreSupport::RestoreSupport(HostSession& session, const HostSession::TaskPtr& task)
    : task_(task), accountFolder_(session.accountFolder()) {
    CBackupManage& manager = session.manager();
    manager.GetTaskInformationForRestoreView(task->name);
    // The service answers canonical paths ("\A\b"); the task may keep its own without
    // the leading separator.
    auto canonical = [](const std::string& path) { return StorePath::normalize(path).value_or(path); };
    serverFolder_ = canonical(manager.taskServerPath.empty() ? task->serverPath : manager.taskServerPath);
    historyFolder_ = manager.taskHistoryPath.empty() ? "" : canonical(manager.taskHistoryPath);
    localTop_ = manager.taskBackupLogLocalPath;
}

RestoreSupport::~RestoreSupport() {
    if (!scratch_.empty())
        FileSystem::removeAll(scratch_);
}

std::string RestoreSupport::relative(const std::string& path) const {
    std::string rel = path;
    if (!path.empty() && path.front() == '/') {
        std::string top = localTop_;
        if (top.empty() || path.compare(0, top.size() + 1, top + "/") != 0)
            throw CliError(Exit::Usage, text("CliOutsideTask", "{} is not in the task \"{}\" (its files are under {})",
                                             path, task_->name, top.empty() ? "?" : top));
        rel = path.substr(top.size() + 1);
    }
    rel = trimSlashes(rel);
    if (rel.empty() || rel.find("..") != std::string::npos)
        throw CliError(Exit::Usage, text("CliBadPath", "bad path \"{}\"", path));
    return rel;
}

std::string RestoreSupport::serverPathOf(const std::string& relativePath) const {
    return serverFolder_ + "\\" + ServerName::encodePath(relativePath);
}

std::vector<std::pair<std::string, PathInfo>> RestoreSupport::files() const {
    std::vector<PathInfo> all;
    int64_t code = TransferApiUtil::sharePathTreeController().GetSubList(serverFolder_, all, false, true);
    if (code != 0)
        throw CliError(Exit::Failed, text("CliCannotList", "the files of \"{}\" cannot be listed: {}", task_->name,
                                          TransferApiUtil::stringWithReturnCode(code)));
    std::vector<std::pair<std::string, PathInfo>> files;
    std::string prefix = serverFolder_ + "\\";
    for (const auto& info : all) {
        if (info.bFolder || info.path.compare(0, prefix.size(), prefix) != 0)
            continue;
        files.emplace_back(ServerName::decodePath(info.path.substr(prefix.size())), info);
    }
    std::sort(files.begin(), files.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    return files;
}

std::string RestoreSupport::versionFolder(const std::string& relativePath) const {
    std::string folder = historyFolder_ + "\\" + task_->name;
    auto slash = relativePath.rfind('/');
    if (slash != std::string::npos)
        folder += "\\" + ServerName::encodePath(relativePath.substr(0, slash));
    return folder;
}

std::string RestoreSupport::versionPath(const std::string& relativePath, int number) const {
    return versionFolder(relativePath) + "\\" +
           VersionNames::name(CFileInfo::GetServerFileName(serverPathOf(relativePath)),
                              static_cast<uint64_t>(number));
}

std::vector<FileVersion> RestoreSupport::versions(const std::string& relativePath) const {
    std::vector<FileVersion> found;
    if (historyFolder_.empty())
        return found;
    PathTreeController& tree = TransferApiUtil::sharePathTreeController();
    std::vector<PathInfo> entries;
    if (tree.GetSubList(versionFolder(relativePath), entries, false, false) != 0)
        return found; // no version folder: no older versions
    // A version belongs to one file of the folder: the names beside it decide which.
    std::string serverFile = serverPathOf(relativePath);
    std::vector<PathInfo> besides;
    tree.GetSubList(CFileInfo::getServerParentFolder(serverFile), besides, false, false);
    std::vector<std::string> siblings;
    for (const auto& entry : besides)
        if (!entry.bFolder)
            siblings.push_back(entry.name);
    std::string name = CFileInfo::GetServerFileName(serverFile);
    for (const auto& entry : entries) {
        if (entry.bFolder)
            continue;
        auto number = VersionNames::numberOf(entry.name, name, siblings);
        if (number && *number <= static_cast<uint64_t>(std::numeric_limits<int>::max()))
            found.push_back({static_cast<int>(*number), entry});
    }
    std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.number < b.number; });
    return found;
}

std::vector<std::string> RestoreSupport::pendingFiles(const HostSession::TaskPtr& task, uint64_t& bytes) {
    if (task->localDirList.empty())
        task->loadFilePathListFromDB();
    task->scanFileArray.clear();
    task->fileTotalSize = 0;
    bool scanned = task->CalculateBackupSize();
    std::vector<std::string> files;
    for (const auto& path : task->scanFileArray)
        if (FileSystem::isRegularFile(path)) // the scan lists the folders it walks too
            files.push_back(path);
    bytes = task->fileTotalSize;
    task->scanFileArray.clear();
    if (!scanned)
        throw CliError(Exit::Failed, text("CliScanFailed", "the folders of \"{}\" could not be read", task->name));
    return files;
}

bool RestoreSupport::encrypted() const {
    return Functions::IsEncryptPath(serverFolder_);
}

std::string RestoreSupport::sampleFile() const {
    std::string sample;
    uint64_t size = 0;
    for (const auto& [rel, info] : files())
        if (sample.empty() || info.iSize < size) {
            sample = info.path;
            size = info.iSize;
        }
    return sample;
}

std::string RestoreSupport::passPhrase(const PassPhraseOptions& options, const std::string& sample) {
    if (!encrypted())
        return "";
    std::optional<std::string> kept = PasswordMan().FindPasswordForPath(serverFolder_);
    std::optional<std::string> phrase;
    // A phrase typed at the terminal may be mistyped: it is asked again, three times in all.
    for (int tries = 1;; ++tries) {
        bool asked = false;
        std::string question = text("CliAskPassPhrase", "Pass phrase of \"{}\": ", task_->name);
        if (options.ask && tries > 1)
            question = text("CliTryPassPhrase", "That pass phrase does not open the files; try again.") + "\n" + question;
        if (options.ask && (tries > 1 || !kept)) {
            phrase = options.ask(question);
            asked = true;
            if (!phrase)
                throw CliError(Exit::Cancelled, text("CliPassPhraseCancelled", "no pass phrase was given"));
        } else {
            phrase = Credentials::passPhrase(options.file, kept, question, &asked);
        }
        if (!phrase)
            throw CliError(Exit::Logon, text("CliNoPassPhrase",
                                             "\"{}\" is encrypted: give its pass phrase with CIRROVAULT_PASSPHRASE or "
                                             "--passphrase-file FILE, or run at a terminal to be asked",
                                             task_->name));
        if (sample.empty() || opens(sample, *phrase))
            break;
        if ((!asked && !options.ask) || tries == 3)
            throw CliError(Exit::Logon, text("CliWrongPassPhrase",
                                             "the pass phrase does not open the files of \"{}\"; nothing was changed",
                                             task_->name));
        // A host's own prompt says it in its next question.
        if (!options.ask)
            std::fprintf(stderr, "%s\n", text("CliTryPassPhrase", "That pass phrase does not open the files; try again.").c_str());
    }
    if (options.keep && phrase != kept)
        keepPassPhrase(*phrase);
    return *phrase;
}

bool RestoreSupport::opens(const std::string& serverPath, const std::string& phrase) {
    std::string copy;
    int64_t code = readBack(serverPath, phrase, copy);
    FileSystem::removeItem(copy);
    // Any other failure is the file's own, reported when it is read for real.
    return code != ResultCode::WrongPassPhrase;
}

void RestoreSupport::keepPassPhrase(const std::string& phrase) const {
    if (!PasswordMan().SetPassword(serverFolder_, true, phrase))
        throw CliError(Exit::Failed, text("CliPassPhraseNotKept", "the pass phrase could not be kept on this computer"));
}

int64_t RestoreSupport::restoreFile(const std::string& serverPath, const std::string& localPath,
                                    const std::string& passPhrase, TrueProgressCallback* progress,
                                    Date modifyTime, std::string* notAsItWas) const {
    TransferInfo transfer;
    transfer.setSvrFile(serverPath);
    transfer.setLocFile(localPath);
    transfer.setProgress(progress);
    transfer.setPassPhrase(passPhrase);
    int64_t code = TransferApiUtil::shareTransferApiUtil().DownloadFile(transfer);
    // Links, permission bits and the link's time: what the bytes do not carry.
    if (code == ResultCode::Success && notAsItWas)
        *notAsItWas = RestoredItem::finish(localPath, transfer.storedMode(), modifyTime);
    return code;
}

int64_t RestoreSupport::readBack(const std::string& serverPath, const std::string& passPhrase, std::string& copy) {
    if (scratch_.empty()) {
        // Beside the account's event log: a folder of this user's that no one else reads.
        std::string folder = accountFolder_ + "/read-back-" + std::to_string(::getpid());
        if (!FileSystem::createDirectories(folder))
            return ResultCode::LocalFileError;
        scratch_ = folder;
    }
    copy = scratch_ + "/" + std::to_string(++scratchCount_);
    return restoreFile(serverPath, copy, passPhrase, nullptr);
}

RestoreOutcome RestoreSupport::restoreItems(const std::vector<RestoreItem>& items, const std::string& to,
                                            bool overwrite, const std::string& passPhrase,
                                            const std::shared_ptr<ViewBackend>& backend) const {
    uint64_t total = 0;
    for (const auto& item : items)
        total += item.size;
    CDownloadFileController window(backend);
    window.iTotalSize = total;
    window.setStrDownPath(to);
    TrueProgressCallback& progress = *window.pDownloadProgBar;
    RestoreOutcome outcome;
    std::atomic<bool> finished{false};
    Thread* self = nullptr;
    Thread worker([&] {
        progress.setTotalSize(total);
        progress.setTotalFiles(static_cast<int64_t>(items.size()));
        uint64_t done = 0;
        for (const auto& item : items) {
            if (window.IsCancelDownload(self) || progress.IsClickedCancel() || Signals::pending()) {
                outcome.cancelled = true;
                break;
            }
            if (FileSystem::exists(item.local) && !overwrite) {
                outcome.kept.push_back(item.local);
            } else {
                window.setStrRestoringFile(item.local);
                progress.setDoneSize(done);
                std::string notAsItWas;
                int64_t code =
                    restoreFile(item.server, item.local, passPhrase, &progress, item.modifyTime, &notAsItWas);
                if (code == ResultCode::Cancelled) {
                    outcome.cancelled = true;
                    break;
                }
                if (code == ResultCode::Success) {
                    outcome.restored.push_back(item.local);
                    outcome.bytesRestored += item.size;
                    if (!notAsItWas.empty())
                        outcome.incomplete.push_back(item.local + ": " + notAsItWas);
                } else
                    outcome.failed.push_back(item.local + ": " + TransferApiUtil::stringWithReturnCode(code));
            }
            done += item.size;
            window.iHasDownloadSize = done;
            progress.setDoneFiles(progress.doneFiles() + 1);
            progress.setSentSize(0);
        }
        finished = true;
        window.refreshPrgbarDelegate(); // the last frame shows where it ended
        window.LeaveProgressModel(self);
    });
    self = &worker;
    // A signal stops the transfer under way, not only the next file.
    Thread watcher([&] {
        while (!finished) {
            if (Signals::wait(0.2) != 0) {
                progress.setBClickedCancel(true);
                return;
            }
        }
    });
    watcher.start();
    window.EnterProgressMode(&worker);
    worker.join();
    finished = true;
    watcher.join();
    return outcome;
}

} // namespace cirrovault::cli

// The upload walk: passes over the scan's list, folders made on the server, files
// compared with their stored copies and uploaded only when changed.
#include <cstddef>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>

#include "engine/task/CBackupTask.h"
#include "engine/task/UploadPool.h"
#include "platform/framework/Functions.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/NimboSetting.h"
#include "platform/framework/PasswordMan.h"
#include "platform/framework/PathTreeController.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/ServerName.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/framework/TransferInfo.h"
#include "platform/framework/UploadFileInfo.h"
#include "platform/os/FileSystem.h"
#include "platform/os/Clock.h"
#include "platform/os/SystemLog.h"
#include "platform/store/StoreBackend.h"
#include "support/CErrorLog.h"
#include "support/CFileAttributes.h"
#include "support/CFileInfo.h"
#include "support/GlobalFunction.h"
#include "support/OptionsMan.h"

namespace cirrovault {

namespace {

constexpr int32_t kWarningEntry = 1;
constexpr int32_t kErrorEntry = 2;
constexpr int kSendsWhileChanging = 2; // sends of a file that changes as it is read
constexpr double kDisownedAge = 86400; // how far before its content an unsure copy is dated
constexpr uint64_t kEncryptedExtra = 128;
constexpr int32_t kLastRetry = 19; // tries 0..20: 21 attempts per pass
constexpr int kPromptNoSpaceLeft = 6;
constexpr int64_t kFolderException = 2;
constexpr int64_t kNoServerFolder = 4;
// Bounds of the retries, so that a fault that does not pass ends the run with an error
// instead of keeping it going: one file's immediate retries stop after this long, and
// the walk ends after this many passes in a row in which no entry got done, or when it
// has been retrying for this long.
constexpr double kFileRetrySeconds = 5 * 60;
constexpr int kPassesWithoutProgress = 3;
constexpr double kRunRetrySeconds = 30 * 60;

double secondsSince(Date start) {
    return Clock::shared().now().timeIntervalSinceDate(start);
}

bool cancelRequested(const std::shared_ptr<TrueProgressCallback>& progress) {
    return progress && (progress->IsClickedCancel() || progress->IsCancelled());
}

// The user may free space and go on after a space-limit answer.
bool userRetriesAfterSpaceLimit() {
    return GlobalFunction::SpaceLimitAlter(kPromptNoSpaceLeft, "") &&
           GlobalFunction::SpaceLimitRetry("");
}

// Seconds of difference the change test forgives. The default is the key's own text,
// whose number is 0: unset means "equal to the second". Read once per walk: the
// settings file is parsed on every read.
int64_t ignoredTimeSpan(std::optional<int64_t>& cached) {
    if (!cached) {
        std::string text =
            NimboSetting::GetSettingValueForKey("IgnoreTimeSpan", "IgnoreTimeSpan");
        cached = std::strtoll(text.c_str(), nullptr, 10);
    }
    return *cached;
}

// Size, both times and identity: every write to a file moves at least its change time.
bool sameState(const std::optional<FileStatus>& before, const FileStatus& after) {
    return before && before->size == after.size && before->modifyTime == after.modifyTime &&
           before->changeTime == after.changeTime && before->inode == after.inode &&
           before->device == after.device;
}

} // namespace

bool CBackupTask::isFatalUploadCode(int64_t code) {
    switch (code) {
    case 5:
    case 6:
    case 10:
    case 12:
    case 73:
    case 74:
    case 75:
        return true;
    default:
        return false;
    }
}

struct CBackupTask::FileUpload : UploadPool::Job {
    explicit FileUpload(CBackupTask& owner) : task(owner) {}
    void run() override { task.sendFile(*this); }

    CBackupTask& task;
    std::shared_ptr<TrueProgressCallback> progress;
    std::string localPath;
    std::string serverPath; // the folder
    std::string serverFile;
    uint64_t size = 0;
    size_t entry = 0;    // its place in the walk's list
    bool shared = false; // sent beside other files
    int32_t tries = 0;   // attempts made before the present one
    Date firstTry;
    bool changedWhileRead = false;
    // Whether a failure is tried again at once. Not when the entry before it failed in
    // this pass: sent one at a time, it would have waited for the next pass unsent.
    bool retryNow = true;
    int64_t result = ResultCode::Failure;
};

bool CBackupTask::BeginUploadingData() {
    try {
        uploadWalkCache = {};
        // Files go several at once only where the store gains from it; the walk still
        // decides on every file, and makes folders and versions, on this thread.
        std::optional<UploadPool> pool;
        if (size_t transfers = OptionsMan::transfers(); transfers > 1) {
            std::shared_ptr<StoreBackend> store = TransferApiUtil::shareTransferApiUtil().backend();
            if (store && store->capabilities().concurrentPuts)
                pool.emplace(transfers);
        }
        struct Detach {
            CBackupTask& task;
            ~Detach() { task.uploadPool = nullptr; }
        } detach{*this};
        uploadPool = pool ? &*pool : nullptr;

        size_t count = scanFileArray.size();
        int passesWithoutProgress = 0;
        std::optional<Date> retryingSince;
        while (count >= 1) {
            if (cancelRequested(pPrgBar)) {
                iBackupRet = ResultCode::Cancelled;
                return true;
            }
            if (isFatalUploadCode(static_cast<int64_t>(iBackupRet)))
                return true;
            // One pass. Entries done leave the list, the others keep their order; the list
            // is closed up once at the end of the pass, not at every entry (that moved
            // every later entry once per file: quadratic in the files of the run).
            std::vector<char> stays(count, 0);
            std::vector<char> failed(count, 0);
            size_t i = 0;
            bool stopped = false;
            size_t latest = 0; // the walk's result is that of its latest entry
            auto keepFrom = [&](size_t from) {
                for (size_t j = from; j < count; ++j)
                    stays[j] = 1;
            };
            // What became of an entry, as its file is taken back, in the walk's order.
            auto note = [&](size_t at, int64_t r) {
                if (isFatalUploadCode(r)) {
                    if (!stopped) {
                        getBackupTaskResult(static_cast<uint64_t>(r), "", scanFileArray[at]);
                        iBackupRet = static_cast<uint64_t>(r);
                        stopped = true;
                        keepFrom(std::min(at, i));
                    }
                    return;
                }
                if (r == ResultCode::Failure) {
                    // The entry stays, and the one after it waits for the next pass.
                    failed[at] = 1;
                    stays[at] = 1;
                    if (at + 1 < count) {
                        stays[at + 1] = 1;
                        if (i == at + 1)
                            ++i;
                    }
                }
                if (at >= latest && !stopped) {
                    latest = at;
                    iBackupRet = static_cast<uint64_t>(r);
                }
            };
            auto takeBack = [&](bool wait) {
                if (!uploadPool)
                    return;
                while (auto job = std::static_pointer_cast<FileUpload>(uploadPool->takeFinished(wait))) {
                    job->retryNow = job->entry == 0 || !failed[job->entry - 1];
                    note(job->entry, settleFile(*job));
                }
            };
            try {
                while (i < count && !stopped) {
                    if (cancelRequested(pPrgBar)) {
                        iBackupRet = ResultCode::Cancelled;
                        stopped = true;
                        keepFrom(i);
                        break;
                    }
                    const size_t at = i++;
                    if (scanFileArray[at].empty())
                        continue; // nothing to back up; left in place it would keep the walk going
                    walkEntry = at;
                    note(at, BackupPath(scanFileArray[at], "", false));
                    takeBack(false);
                }
                takeBack(true);
            } catch (...) {
                keepFrom(i);
                takeBack(true);
                throw;
            }
            size_t kept = 0;
            for (size_t j = 0; j < count; ++j)
                if (stays[j]) {
                    if (kept != j)
                        scanFileArray[kept] = std::move(scanFileArray[j]);
                    ++kept;
                }
            scanFileArray.resize(kept);
            const size_t before = count;
            count = scanFileArray.size();
            // Entries stay only after a failure (or behind one): a retry pass follows.
            if (count == 0 || isFatalUploadCode(static_cast<int64_t>(iBackupRet)))
                continue;
            passesWithoutProgress = count < before ? 0 : passesWithoutProgress + 1;
            if (!retryingSince)
                retryingSince = Clock::shared().now();
            if (passesWithoutProgress >= kPassesWithoutProgress ||
                secondsSince(*retryingSince) >= kRunRetrySeconds) {
                std::string message = LoadString::Format("UploadRetriesEnded", count);
                SystemLog::write(message);
                bHaveErr = true;
                CErrorLog::recordError(name, taskID, message, kErrorEntry);
                iBackupRet = ResultCode::Failure;
                return true;
            }
        }
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupTask::BeginUploadingData()");
    }
    return true;
}

int64_t CBackupTask::BackupPath(const std::string& localPath, const std::string& serverPath,
                                bool bRecursive) {
    try {
        std::string folder = serverPath.empty() ? getTargetSvrFolder(localPath, true) : serverPath;
        bCreateBackupFolder = false;
        if (CFileInfo::isDirectory(localPath)) {
            SystemLog::write("backupDir");
            return backupDir(localPath, folder, bRecursive);
        }
        auto status = FileSystem::linkStatus(localPath);
        if (status && (status->type == FileType::Regular || status->type == FileType::SymbolicLink)) {
            SystemLog::write("backupFile");
            return backupFile(localPath, folder, 0);
        }
        return ResultCode::Success; // gone since the scan
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupTask::BackupPath()");
        return ResultCode::Failure;
    }
}

int64_t CBackupTask::backupDir(const std::string& localPath, const std::string& serverPath,
                               bool bRecursive) {
    std::string svrPath;
    try {
        std::string folderName = CFileInfo::getMacFileName(localPath, false);
        svrPath = CFileInfo::serverPathAppend(serverPath, ServerName::encode(folderName));
        PathInfo found;
        if (TransferApiUtil::sharePathTreeController().FindPath(svrPath, found, false))
            return ResultCode::Success;

        bCreateBackupFolder = true;
        bInitUIPrgBar = false;
        if (pPrgBar)
            pPrgBar->setMsg("Create " + folderName);
        runDelegateFun(refreshProgressBarDelegate);
        TransferApiUtil& service = TransferApiUtil::shareTransferApiUtil();
        int64_t c = service.AddFolder(svrPath, folderName, folderName, false);
        if (c == ResultCode::NotLoggedOn) {
            if (!GlobalFunction::reLogon(true))
                return ResultCode::Success;
            c = service.AddFolder(svrPath, folderName, folderName, false);
        }

        if (c == ResultCode::Failure || c == ResultCode::SubItemLimit || c == 75) {
            getBackupTaskResult(static_cast<uint64_t>(c), svrPath, localPath);
            return c;
        }
        if (c == ResultCode::SpaceLimit) {
            if (userRetriesAfterSpaceLimit())
                return backupDir(localPath, serverPath, bRecursive);
            getBackupTaskResult(static_cast<uint64_t>(c), svrPath, localPath);
            return c;
        }
        if (c > 9 || c == ResultCode::Success)
            return ResultCode::Success;
        bHaveErr = true;
        CErrorLog::recordError(name, taskID,
                               LoadString::GetValueByKey("CreateFolderError", "") + svrPath,
                               kErrorEntry);
        return c;
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupTask::backupDir()");
        getBackupTaskResult(kFolderException, svrPath, localPath);
        return kFolderException;
    }
}

int64_t CBackupTask::backupFile(const std::string& localPath, const std::string& serverPath,
                                int32_t iTryTime) {
    try {
        PathTreeController& tree = TransferApiUtil::sharePathTreeController();
        PathInfo folderInfo;
        if (!tree.FindPath(serverPath, folderInfo, false)) {
            std::string caption = CFileInfo::GetServerFileName(serverPath);
            int64_t code = 0;
            if (!GlobalFunction::CreateSrvFolder(serverPath, caption, caption, &code)) {
                bHaveErr = true;
                CErrorLog::recordError(
                    name, taskID, LoadString::GetValueByKey("CreateFolderError", "") + serverPath,
                    kErrorEntry);
                return kNoServerFolder;
            }
        }

        std::string fileName = ServerName::encode(CFileInfo::getMacFileName(localPath, false));
        std::string serverFile = CFileInfo::serverPathAppend(serverPath, fileName);
        PathInfo stored;
        if (tree.FindPath(serverFile, stored, false)) {
            CFileAttributes attributes(localPath);
            if (attributes.getFileAttibutes() && attributes.modifyDate) {
                bool encrypted = Functions::IsEncryptPath(serverFile);
                uint64_t expected = static_cast<uint64_t>(attributes.fileSize) +
                                    (encrypted ? kEncryptedExtra : 0);
                if (storedCopyIsCurrent(static_cast<uint64_t>(attributes.fileSize),
                                        *attributes.modifyDate, stored.iSize, stored.modifyTime,
                                        encrypted, storeTimePrecision(),
                                        ignoredTimeSpan(uploadWalkCache.ignoreTimeSpan))) {
                    if (pPrgBar)
                        pPrgBar->addDoneSize(expected);
                    return ResultCode::Success;
                }
            }
            // Without its pass phrase the new copy cannot be made: the current one stays
            // where it is rather than going to the history with nothing to replace it.
            if (Functions::IsEncryptPath(serverFile) &&
                !PasswordMan().FindPasswordForPath(serverFile)) {
                getBackupTaskResult(static_cast<uint64_t>(ResultCode::WrongPassPhrase), serverPath,
                                    localPath);
                return ResultCode::WrongPassPhrase;
            }
            recordCurrent(serverFile, uiMaxVersion, fileName);
        }

        CFileInfo::CreateSubDir(CFileInfo::getTempPath(serverPath, true));

        auto job = std::make_shared<FileUpload>(*this);
        job->progress = pPrgBar;
        job->localPath = localPath;
        job->serverPath = serverPath;
        job->serverFile = serverFile;
        job->size = CFileInfo::sizeOfFile(localPath);
        job->entry = walkEntry;
        job->tries = iTryTime;
        job->firstTry = Clock::shared().now();
        job->shared = uploadPool != nullptr;
        if (pPrgBar)
            pPrgBar->setThisSize(job->size);
        bInitUIPrgBar = true;
        strWorkingFile = localPath;
        runDelegateFun(refreshProgressBarDelegate);
        if (uploadPool) {
            // The version move above is done: the new copy may land whenever it is sent.
            uploadPool->submit(job);
            return ResultCode::Success; // what came of it is noted as the walk takes it back
        }
        sendFile(*job);
        return settleFile(*job);
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupTask::backupFile()");
        return ResultCode::Failure;
    }
}

void CBackupTask::sendFile(FileUpload& job) {
    TransferInfo transfer;
    transfer.setSvrFile(job.serverFile);
    transfer.setLocFile(job.localPath);
    transfer.setProgress(job.progress.get());
    transfer.setSharedProgress(job.shared);
    UploadFileInfo information;
    int64_t r = cancelRequested(job.progress) ? ResultCode::Cancelled
                                              : uploadSettled(job, transfer, information);
    if (r == ResultCode::Done)
        r = ResultCode::Success;
    if (job.progress) {
        if (r == ResultCode::Success)
            job.progress->addDoneSize(job.size);
        if (!job.shared) {
            job.progress->setSentSize(0);
            // Back to what earlier files confirmed; this attempt's bytes do not count.
            if (r != ResultCode::Success)
                job.progress->setTempSize(0);
        }
    }
    job.result = r;
}

int64_t CBackupTask::settleFile(FileUpload& job) {
    for (;;) {
        if (job.changedWhileRead)
            CErrorLog::recordError(name, taskID,
                                   LoadString::Format("FileChangedWhileRead", job.localPath),
                                   kWarningEntry);
        job.changedWhileRead = false;
        // A passing fault is tried again at once, and so is a full account the user
        // freed space in; here on the walk, so that each attempt shows in the window.
        const bool inBounds =
            job.tries <= kLastRetry && secondsSince(job.firstTry) < kFileRetrySeconds;
        if (!inBounds ||
            !((job.result == ResultCode::Failure && job.retryNow) ||
              (job.result == ResultCode::SpaceLimit && userRetriesAfterSpaceLimit())))
            break;
        ++job.tries;
        runDelegateFun(refreshProgressBarDelegate);
        sendFile(job);
    }
    if (job.result == ResultCode::Success) {
        uiRemoteSize += job.size;
        uiTaskCurrentUploadSize += job.size;
        blogModify = true;
    }
    getBackupTaskResult(static_cast<uint64_t>(job.result), job.serverPath, job.localPath);
    return job.result;
}

int64_t CBackupTask::uploadSettled(FileUpload& job, TransferInfo& transfer,
                                   UploadFileInfo& information) {
    TransferApiUtil& service = TransferApiUtil::shareTransferApiUtil();
    const std::string localPath = transfer.locFile();
    for (int send = 1;; ++send) {
        std::optional<FileStatus> before = FileSystem::status(localPath);
        int64_t r = service.UploadFile(transfer, information);
        if ((r != ResultCode::Success && r != ResultCode::Done) || transfer.storedTime())
            return r;
        std::optional<FileStatus> after = FileSystem::status(localPath);
        // Gone since: the open file was read whole, as it was.
        if (!after || sameState(before, *after))
            return r;
        SystemLog::write("Changed while read: " + localPath);
        if (job.progress && !job.shared) {
            job.progress->setSentSize(0);
            job.progress->setTempSize(0);
        }
        if (send < kSendsWhileChanging)
            continue;
        // A copy that may mix two states must not carry a time that vouches for it: it
        // is kept with a time well before its content, so the next run sends the file.
        Date from = before ? before->modifyTime : after->modifyTime;
        transfer.setStoredTime(from.addingTimeInterval(-kDisownedAge));
        job.changedWhileRead = true;
    }
}

} // namespace cirrovault

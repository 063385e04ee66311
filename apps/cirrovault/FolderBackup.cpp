#include "FolderBackup.h"

#include <cstdio>
#include <memory>
#include <mutex>

#include "engine/task/CBackupTask.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/Thread.h"
#include "support/CFileInfo.h"
#include "support/GlobalFunction.h"

namespace cirrovault {

namespace {

// Prints each file as the run starts sending it.
class FilePrinter : public StowlineDelegate {
public:
    explicit FilePrinter(bool enabled) : enabled_(enabled) {}
    bool StowlineDelegateFun(const std::shared_ptr<CBackupTask>& task,
                             StowlineDelegateType type) override {
        if (!enabled_ || !task || type != refreshProgressBarDelegate || !task->bInitUIPrgBar)
            return true;
        std::lock_guard lock(mutex_);
        if (task->strWorkingFile != last_) {
            last_ = task->strWorkingFile;
            std::printf("  sending  %s\n", last_.c_str());
        }
        return true;
    }

private:
    bool enabled_;
    std::mutex mutex_;
    std::string last_; // guarded by mutex_
};

} // namespace

FolderBackupResult FolderBackup::run(const std::string& localFolder, bool printEachFile) {
    FolderBackupResult result;
    auto task = std::make_shared<CBackupTask>();
    task->name = CFileInfo::getMacFileName(localFolder, false);
    task->description = localFolder;
    std::string dataFolder =
        GlobalFunction::getSvrAppFolder(LoadString::GetValueByKey("IDS_DATAPATH", ""),
                                        LoadString::GetValueByKey("IDS_DATAFLDDESC", ""));
    if (dataFolder.empty()) {
        result.state = CBackupTask::StateFailed;
        result.errorText = "the backup folders cannot be made on the service";
        return result;
    }
    task->serverPath = CFileInfo::serverPathAppend(dataFolder, task->name);
    task->localDirList = {localFolder};
    FilePrinter printer(printEachFile);
    task->SetDelegate(&printer);

    // The start answers false even when the run is under way; the worker tells.
    task->StartBackup(false);
    std::shared_ptr<Thread> worker = task->pBackupTaskThread;
    if (!worker) {
        result.state = CBackupTask::StateFailed;
        result.errorText = "the backup could not start";
        return result;
    }
    task->checkFinshedBackup();
    worker->join(); // the closing notices come after the end-of-run signal

    result.state = task->mTaskState;
    result.code = task->iBackupRet;
    result.filesToSend = task->nScanTotalFiles;
    result.bytesSent = task->uiTaskCurrentUploadSize;
    result.serverFolder = task->serverPath;
    if (task->strErrLog)
        result.errorText = *task->strErrLog;
    else if (result.state != CBackupTask::StateSucceeded)
        result.errorText = TransferApiUtil::stringWithReturnCode(static_cast<int64_t>(result.code));
    return result;
}

} // namespace cirrovault

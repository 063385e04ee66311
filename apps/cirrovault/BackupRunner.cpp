#include "BackupRunner.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <chrono>
#include <thread>

#include "Signals.h"
#include "TaskFormat.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/store/StoreBackend.h"
#include "support/GlobalFunction.h"
#include "ui/ProgressBarController.h"

namespace cirrovault::cli {

namespace {

// The window's progress object mirrors the run's, which the run replaces as it goes.
void mirror(const TrueProgressCallback& from, TrueProgressCallback& to) {
    to.setTotalSize(from.totalSize());
    to.setDoneSize(from.doneSize());
    to.setThisSize(from.thisSize());
    if (from.bytesDone() > 0 && to.bytesDone() == 0)
        to.startTiming();
    to.setSentSize(from.sentSize());
}

// Where the user finds the task's files: a local folder or a URL, not the store's own
// "\" path.
std::string storedAt(const std::string& serverPath) {
    auto store = TransferApiUtil::shareTransferApiUtil().backend();
    return store ? store->locationOf(serverPath) : serverPath;
}

} // namespace

BackupRunner::BackupRunner(HostSession& session) : session_(session) {
    listener_ = session_.addListener([this](const HostSession::TaskPtr& t, int32_t type) {
        if (!t || type != refreshProgressBarDelegate)
            return;
        // A new task's first run reuses the creation's scan and counts nothing itself.
        totalFiles_ = t->nScanTotalFiles > 0 ? t->nScanTotalFiles : static_cast<int64_t>(t->scanFileArray.size());
        if (t->fileTotalSize > 0)
            totalBytes_ = t->fileTotalSize;
        if (t->bInitUIPrgBar && !t->strWorkingFile.empty() && t->strWorkingFile != lastFile_) {
            lastFile_ = t->strWorkingFile;
            ++filesStarted_;
        }
    });
}

BackupRunner::~BackupRunner() {
    session_.removeListener(listener_);
}

RunOutcome BackupRunner::runNow(const HostSession::TaskPtr& task) {
    return run(task, [&] { return session_.manager().StartBackupByUser(task->name, false); });
}

RunOutcome BackupRunner::watch(const HostSession::TaskPtr& task) {
    return run(task, [] { return true; });
}

RunOutcome BackupRunner::run(const HostSession::TaskPtr& task, const std::function<bool()>& start) {
    RunOutcome outcome;
    HostSession& session = session_;
    CBackupManage& manager = session.manager();
    ProgressBarController progress(session.backend());
    Thread* self = nullptr;
    Thread worker([&] {
        outcome.started = start();
        std::shared_ptr<Thread> runThread = task->pBackupTaskThread;
        if (outcome.started && runThread) {
            bool cancelling = false;
            std::string shown;
            while (task->mTaskState == CBackupTask::StateRunning && !runThread->isFinished()) {
                auto window = progress.getProgressInfo(self);
                if (auto from = task->GetProgress(); from && window) {
                    mirror(*from, *window);
                    if (from->totalSize() == 0)
                        window->setTotalSize(totalBytes_);
                    window->setTotalFiles(totalFiles_);
                    window->setDoneFiles(std::max<int64_t>(0, std::min(filesStarted_.load() - 1, totalFiles_.load())));
                    std::string file = from->currentFile();
                    std::string message = text("CliBackingUp", "Backing up \"{}\"", task->name) +
                                          (file.empty() ? "" : ": " + file);
                    if (message != shown) {
                        progress.SetProgressMessage(self, message);
                        shown = message;
                    }
                }
                bool asked = Signals::pending() != 0 ||
                             (window && progress.IsCancelProgressModel(self));
                if (asked && !cancelling) {
                    cancelling = true;
                    progress.SetProgressMessage(self, text("CliStopping", "Stopping..."));
                    // Marks the run's progress object cancelled, aborts the transfer under
                    // way and waits for the run's end. A new task's first run is not in
                    // the manager's list while it runs, so it is stopped through its own
                    // progress object.
                    if (manager.GetTaskByName(task->name))
                        manager.stopBackupTask(task->name);
                    else
                        task->CancelBackup();
                }
                // Short enough that Ctrl-C stops a run within one file of a few MB.
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
            // The closing notices follow the end of the run; they clear the working task.
            runThread->join();
        }
        // The last figures stay on a terminal: draw them once more before closing.
        if (auto window = progress.windowOf(self)) {
            if (task->mTaskState == CBackupTask::StateSucceeded) {
                window->progressInfo()->setDoneFiles(totalFiles_);
                window->SetMessage(text("CliBackedUpShort", "Backed up \"{}\"", task->name));
            }
            window->refreshProgress();
        }
        progress.LeaveProgressModel(self);
    });
    self = &worker;
    progress.EnterProgressMode(&worker);
    worker.join();

    bool started = outcome.started;
    outcome = outcomeOf(task);
    outcome.started = started;
    return outcome;
}

RunOutcome BackupRunner::outcomeOf(const HostSession::TaskPtr& task) {
    RunOutcome outcome;
    outcome.started = true;
    outcome.state = task->mTaskState;
    outcome.code = task->iBackupRet;
    outcome.filesToSend = task->nScanTotalFiles;
    outcome.bytesSent = task->uiTaskCurrentUploadSize;
    outcome.leftOut = task->leftOutPaths;
    if (task->strErrLog && !task->strErrLog->empty())
        outcome.errorText = *task->strErrLog;
    else if (outcome.state != CBackupTask::StateSucceeded && outcome.code != 0)
        outcome.errorText = TransferApiUtil::stringWithReturnCode(static_cast<int64_t>(outcome.code));
    return outcome;
}

Json BackupRunner::resultDocument(const HostSession::TaskPtr& task, const RunOutcome& outcome) {
    Json doc = Json::object();
    doc.set("ok", true).set("task", task->name).set("state", TaskFormat::stateName(outcome.state))
        .set("filesSent", outcome.filesToSend).set("bytesSent", outcome.bytesSent)
        .set("serverFolder", task->serverPath);
    return doc;
}

std::string BackupRunner::summary(const HostSession::TaskPtr& task, const RunOutcome& outcome) {
    std::string line = stateSummary(task, outcome);
    // Nothing is left out silently: each such item is named here as in the event log.
    for (const auto& path : outcome.leftOut)
        line += "\n" + text("CliLeftOut", "left out: {} (name too long for the service)", path);
    return line;
}

std::string BackupRunner::stateSummary(const HostSession::TaskPtr& task, const RunOutcome& outcome) {
    if (!outcome.started)
        return text("CliNotStarted", "the backup of \"{}\" could not start{}", task->name,
                    outcome.errorText.empty() ? "" : ": " + outcome.errorText);
    switch (outcome.state) {
    case CBackupTask::StateSucceeded:
        return text("CliBackupDone", "Backed up \"{}\": {}, {} sent -> {}", task->name,
                    TaskFormat::countText(static_cast<size_t>(std::max(outcome.filesToSend, 0)),
                                          "new or changed file", "new or changed files"),
                    GlobalFunction::stringFromFileSize(outcome.bytesSent), storedAt(task->serverPath));
    case CBackupTask::StateCancelled:
        return text("CliBackupCancelled",
                    "the backup of \"{}\" was cancelled; {} sent so far. Run it again to go on "
                    "where it stopped.",
                    task->name, GlobalFunction::stringFromFileSize(outcome.bytesSent));
    default:
        return text("CliBackupFailed", "the backup of \"{}\" failed: {}", task->name,
                    outcome.errorText.empty() ? std::string("see `cirrovault log`") : outcome.errorText);
    }
}

int BackupRunner::exitCode(const RunOutcome& outcome) {
    if (!outcome.started)
        return Exit::Failed;
    if (outcome.state == CBackupTask::StateSucceeded)
        return Exit::Ok;
    return outcome.state == CBackupTask::StateCancelled ? Exit::Cancelled : Exit::Failed;
}

} // namespace cirrovault::cli

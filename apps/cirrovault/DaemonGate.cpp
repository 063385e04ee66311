#include "DaemonGate.h"

#include "Output.h"
#include "TaskFormat.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"
#include "platform/store/StoreBackend.h"
#include "support/OptionsMan.h"

namespace cirrovault::cli {

DaemonGate::DaemonGate(CBackupManage& manager, std::string accountFolder, Say say)
    : manager_(manager), folder_(std::move(accountFolder)), say_(std::move(say)),
      // The list the logon has just read: an edit made before the first pass is then a change.
      seenVersion_(taskListVersion()), seenOptions_(optionsStamp()) {}

bool DaemonGate::mayStartRun(const std::string& taskName) {
    std::lock_guard guard(mutex_);
    if (runLock_)
        return true;
    pid_t holder = 0;
    runLock_ = RunLock::acquire(folder_, &holder);
    if (runLock_) {
        lastHolder_ = 0;
        return true;
    }
    // Said once per holder, not on every pass while that command runs.
    pid_t who = holder > 0 ? holder : -1;
    if (who != lastHolder_) {
        lastHolder_ = who;
        say_(text("CliDaemonWaitsForLock", "\"{}\" waits: process {} runs the account's tasks now", taskName,
                  holder > 0 ? std::to_string(holder) : "?"));
    }
    return false;
}

void DaemonGate::runEnded() {
    std::lock_guard guard(mutex_);
    runLock_.reset();
}

void DaemonGate::betweenPasses() {
    {
        std::lock_guard guard(manager_.managerLock);
        if (manager_.pWorkingTask)
            return;
    }
    // Options are saved by replacing their file, so it is read whole or not at all.
    if (OptionsStamp now = optionsStamp(); !(now == seenOptions_)) {
        seenOptions_ = now;
        OptionsMan::LoadOptions();
        say_(text("CliDaemonOptionsRead", "options changed; read them again"));
    }
    std::optional<std::string> version = taskListVersion();
    if (!version || version == seenVersion_)
        return;
    // Read again under the run lock: a command holds it for its whole session, so the
    // list is never taken between the requests of one edit. Busy: the next pass.
    pid_t holder = 0;
    std::unique_ptr<RunLock> lock = RunLock::acquire(folder_, &holder);
    if (!lock)
        return;
    version = taskListVersion();
    if (!version || !manager_.reloadTaskList())
        return;
    bool first = !seenVersion_;
    seenVersion_ = version;
    SystemLog::write("cirrovault daemon: task list reloaded");
    if (!first)
        say_(text("CliDaemonReloaded", "task list changed; {} now",
                  TaskFormat::countText(manager_.getTasksList().size(), "task", "tasks")));
}

std::optional<std::string> DaemonGate::taskListVersion() {
    std::shared_ptr<StoreBackend> store = TransferApiUtil::shareTransferApiUtil().backend();
    if (!store)
        return std::nullopt;
    std::string document, version;
    if (store->readTaskList(document, version) != ResultCode::Success)
        return std::nullopt;
    return version;
}

DaemonGate::OptionsStamp DaemonGate::optionsStamp() {
    OptionsStamp stamp;
    if (auto status = FileSystem::status(OptionsMan::getOptionsFile())) {
        stamp.inode = status->inode;
        stamp.size = status->size;
        stamp.modified = status->modifyTime.timeIntervalSince1970();
    }
    return stamp;
}

} // namespace cirrovault::cli

// Logon with its retry policy, log-off, and loading the task list from the service.
// Logon and log-off run on a worker thread while the host's main thread shows the wait
// dialog; the worker talks to the dialog only through its loop-item calls.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "engine/manager/CBackupManage.h"
#include "platform/framework/CurlHandleController.h"
#include "platform/framework/Functions.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/PathTreeController.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/Clock.h"
#include "platform/os/Guarded.h"
#include "platform/os/SystemLog.h"
#include "platform/view/ViewBackend.h"
#include "service/CManageTaskList.h"

namespace cirrovault {

namespace {

constexpr int64_t kLogonRetryCode = ResultCode::Failure; // the one code that is retried
constexpr int64_t kLogonException = 2;
constexpr int64_t kLogonCancelled = 6;
constexpr int kAttempts = 3;
constexpr int kAttemptsShown = 4; // the number the count-down message names
constexpr int kCountDownFrom = 59;
constexpr const char* kReplyDateFormat = "MM/dd/yyyy HH:mm:ss";
constexpr const char* kServerRoot = "\\";

// The worker's side of the wait dialog. Without a dialog every call does nothing and
// Cancel and Retry are never pressed.
struct LoopTalk {
    CLoopItem* item = nullptr;
    Thread* self = nullptr;

    void show(const std::string& text) const {
        if (item)
            item->SetLoopMessage(self, text);
    }
    void showKey(const std::string& key) const { show(LoadString::GetValueByKey(key, "")); }
    void setType(int32_t type) const {
        if (item)
            item->SetLoopType(self, type);
    }
    bool cancelled() const { return item && item->IsLoopCancel(self); }
    bool retried() const { return item && item->IsLoopRetry(self); }
    void clearRetry() const {
        if (item)
            item->SetRetry(self, false);
    }
    void leave() const {
        if (item)
            item->LeaveLoopMode(self);
    }
    // Sleeps in steps of at most a second, so that Cancel (also a host's stop request
    // pressed on the dialog) is seen within a second. False when cancelled.
    bool pause(double seconds) const {
        do {
            double step = std::min(seconds, 1.0);
            Clock::shared().sleepFor(step);
            seconds -= step;
            if (cancelled())
                return false;
        } while (seconds > 0);
        return true;
    }
};

// Starts the worker under the dialog (which returns once the worker has left its loop)
// or, without a dialog, on its own; either way it has ended when this returns, so the
// dialog can be released without a worker still inside it.
void runUnderDialog(CLoopItem* dialog, Thread& worker, int32_t buttonType) {
    if (dialog)
        dialog->EnterLoopMode(&worker, buttonType);
    if (!worker.isStarted()) // the dialog failed before starting it
        worker.start();
    worker.join();
}

// The platform's integer value of a text: leading blanks, a sign, digits; 0 otherwise.
// A negative value wraps as it would when stored in an unsigned field.
int64_t integerValue(const std::string& text) {
    const char* begin = text.c_str();
    while (*begin == ' ' || *begin == '\t' || *begin == '\n' || *begin == '\r')
        ++begin;
    if (*begin == '-' || *begin == '+')
        return std::strtoll(begin, nullptr, 10);
    return static_cast<int64_t>(std::strtoull(begin, nullptr, 10));
}

// The platform's component split: "" gives one empty element, "a|" gives "a" and "".
std::vector<std::string> splitAtBar(const std::string& text) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        size_t end = text.find('|', start);
        parts.push_back(text.substr(start, end == std::string::npos ? end : end - start));
        if (end == std::string::npos)
            return parts;
        start = end + 1;
    }
}

// The sixteen columns of a task-list reply, one element per task.
struct TaskListReply {
    std::vector<std::string> taskID, taskName, descr, pcName, type, backupDate, serverPath,
        filterExts, filterPaths, maxVersion, nextDate, beginDate, endDate, resumeDate, isResume,
        pcID;

    explicit TaskListReply(const std::string& reply) {
        auto column = [&](const char* key) { return Functions::GetValueArrayByKey(key, reply); };
        taskID = column("RETURN_TaskID");
        taskName = column("RETURN_TaskName");
        descr = column("RETURN_Descr");
        pcName = column("RETURN_PcName");
        type = column("RETURN_Type");
        backupDate = column("RETURN_BackupDate");
        serverPath = column("RETURN_ServerPath");
        filterExts = column("RETURN_FilterExts");
        filterPaths = column("RETURN_FilterPaths");
        // Spelled without the leading R: that is the key the service's column is read
        // under, and a reply spelling it otherwise has no maximum-version value.
        maxVersion = column("ETURN_MaxVersion");
        nextDate = column("RETURN_NextDate");
        beginDate = column("RETURN_BeginDate");
        endDate = column("RETURN_EndDate");
        resumeDate = column("RETURN_ResumeDate");
        isResume = column("RETURN_IsResume");
        pcID = column("RETURN_PcID");
    }

    size_t count() const { return taskID.size(); }

    // A column shorter than the task count reads as empty text for the missing tasks.
    static const std::string& at(const std::vector<std::string>& column, size_t index) {
        static const std::string none;
        return index < column.size() ? column[index] : none;
    }
    static std::optional<Date> dateAt(const std::vector<std::string>& column, size_t index) {
        return Functions::dayTransFromedString(at(column, index), kReplyDateFormat);
    }
};

// An unreadable date keeps the new task's default rather than a meaningless one.
void setDate(Date& field, const std::optional<Date>& value) {
    if (value)
        field = *value;
}

// The task of one reply row, with its size on the service, idle, and marked for
// migration when it belongs to another computer.
std::shared_ptr<CBackupTask> taskFromReply(const TaskListReply& reply, size_t i,
                                           uint64_t managerPcID) {
    using R = TaskListReply;
    auto task = std::make_shared<CBackupTask>();
    task->taskID = static_cast<int32_t>(integerValue(R::at(reply.taskID, i)));
    task->name = R::at(reply.taskName, i);
    task->description = R::at(reply.descr, i);
    task->mPCName = R::at(reply.pcName, i);
    task->taskType = static_cast<int32_t>(integerValue(R::at(reply.type, i)));
    setDate(task->mBackupDate, R::dateAt(reply.backupDate, i));
    task->serverPath = R::at(reply.serverPath, i);
    task->bEncryMode = Functions::IsEncryptPath(task->serverPath);
    if (const std::string& exts = R::at(reply.filterExts, i); !exts.empty())
        task->filterExt = splitAtBar(exts);
    if (const std::string& paths = R::at(reply.filterPaths, i); !paths.empty())
        task->filtedPath = splitAtBar(paths);
    task->uiMaxVersion = static_cast<uint64_t>(integerValue(R::at(reply.maxVersion, i)));
    setDate(task->mDating, R::dateAt(reply.nextDate, i));
    setDate(task->mBeginDate, R::dateAt(reply.beginDate, i));
    setDate(task->mEndDate, R::dateAt(reply.endDate, i));
    setDate(task->mResumeDate, R::dateAt(reply.resumeDate, i));
    task->bResume = integerValue(R::at(reply.isResume, i)) != 0;
    task->getTaskSizeFromServer();
    task->setTaskState(CBackupTask::StateIdle);
    task->pcID = static_cast<uint64_t>(integerValue(R::at(reply.pcID, i)));
    if (task->pcID != managerPcID)
        task->bMigrateTask = true;
    return task;
}

// Waits for a scheduler semaphore (the end of a pass, or of the thread), but only while
// a scheduler thread runs: a host that never started one, or whose scheduler has ended,
// has nothing to wait for, and a wait without limit would hang it. The semaphore is
// read again on every round because the scheduler makes new ones on every pass.
void waitForScheduler(CBackupManage& manager,
                      std::shared_ptr<Semaphore> CBackupManage::*semaphore) {
    for (;;) {
        std::shared_ptr<Thread> scheduler = manager.pScheduleThread;
        if (!scheduler || !scheduler->isStarted() || scheduler->isFinished())
            return;
        std::shared_ptr<Semaphore> signal;
        {
            std::lock_guard lock(manager.managerLock);
            signal = manager.*semaphore;
        }
        if (signal) {
            if (signal->waitFor(0.1))
                return;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(10)); // before its first pass
        }
    }
}

} // namespace

int64_t CBackupManage::Mylogon(const std::string& userName, const std::string& userPassword) {
    try {
        strName = userName;
        strPassword = userPassword;
        bCancelLogon = false;

        std::shared_ptr<CLoopItem> dialog = CLoopItem::create();
        pLoopDlg = dialog;
        loopItem = dialog.get();
        pLogonThread = std::make_shared<Thread>([this] { LogonProc(); });
        runUnderDialog(dialog.get(), *pLogonThread, CLoopItem::ButtonCancel);

        loopItem = nullptr;
        pLoopDlg.reset();
        pLogonThread.reset();

        if (bCancelLogon)
            return kLogonCancelled;
        if (iRet == ResultCode::Success)
            bLogOff = false;
        return iRet;
    } catch (const std::exception&) {
        SystemLog::write("Error:Mylogon()");
        loopItem = nullptr;
        return kLogonException;
    }
}

void CBackupManage::LogonProc() {
    const LoopTalk loop{loopItem, pLogonThread.get()};
    try {
        bLogOff = false;
        bExit = false;
        iRet = ResultCode::Success;

        loop.showKey("IDS_SINGING");
        iRet = TransferApiUtil::shareTransferApiUtil().Logon(strName, strPassword);
        SystemLog::write("Log on ret: " + std::to_string(iRet.load()));

        if (iRet == kLogonRetryCode) {
            ReLogon();
            if (iRet == ResultCode::Success)
                loop.setType(CLoopItem::ButtonCancel);
        }
        if (bCancelLogon) {
            loop.leave();
            return;
        }

        loop.showKey("IDS_STRINITLISTAFTERLOGON");
        if (iRet == ResultCode::Success &&
            TransferApiUtil::sharePathTreeController().RefreshSvrPath(kServerRoot) != 0) {
            // The account's root cannot be read: the session is of no use, so it ends,
            // yet the logon itself is reported as it came back.
            logOff(false);
            iRet = ResultCode::Success;
        }

        if (loop.cancelled()) {
            bCancelLogon = true;
        } else if (iRet == ResultCode::Success) {
            loop.showKey("IDS_GETTINGTASK");
            initMyID();
            CManageTaskList client;
            std::string reply = client.getBackupTasks("", "false");
            if (client.iResult == ResultCode::Success) {
                if (LoadTaskList(reply))
                    SystemLog::write("Successful load task list");
                else
                    SystemLog::write("Failed to load task list");
            } else {
                SystemLog::write("Error: get task list.");
            }
        }
        loop.leave();
    } catch (const std::exception&) {
        iRet = kLogonException;
        SystemLog::write("Error:Mylogon throw exception.");
        // Otherwise the host would wait in the dialog for ever.
        try {
            loop.leave();
        } catch (const std::exception&) {
        }
    }
}

void CBackupManage::ReLogon() {
    const LoopTalk loop{loopItem, pLogonThread.get()};
    static const char* const attemptMessages[kAttempts] = {
        "IDS_STRFAILCONTRY", "IDS_STRFAILCONTRY2", "IDS_STRFAILCONTRY3"};
    try {
        for (;;) {
            for (int attempt = 0; attempt < kAttempts; ++attempt) {
                if (!loop.pause(std::trunc(attempt * 1.5))) { // 0, 1 and 3 seconds
                    bCancelLogon = true;
                    break;
                }
                loop.showKey(attemptMessages[attempt]);
                iRet = TransferApiUtil::shareTransferApiUtil().Logon(strName, strPassword);
                if (iRet != kLogonRetryCode)
                    break;
                if (loop.cancelled()) {
                    bCancelLogon = true;
                    break;
                }
            }
            if (bCancelLogon || iRet != kLogonRetryCode)
                return;
            // Only a user can end the count-down; without a dialog, or with one nobody
            // answers, the failure goes back to the host instead of waiting for ever.
            if (!loop.item || bUnattended)
                return;

            bool retry = false;
            while (!retry) {
                loop.setType(CLoopItem::ButtonRetryCancel);
                loop.show(LoadString::Format("IDS_STRFAILCONTRYTIME", kAttemptsShown,
                                             LoadString::Format("IDS_STRMINUTES", 1)));
                for (int count = kCountDownFrom; count >= 0; --count) {
                    Clock::shared().sleepFor(1);
                    std::string timeText;
                    if (count > 0) {
                        timeText = LoadString::Format("IDS_STRSECONDS", count);
                        if (!timeText.empty())
                            timeText = " " + timeText;
                    }
                    loop.show(LoadString::Format("IDS_STRFAILCONTRYTIME", kAttemptsShown, timeText));
                    if (loop.cancelled()) {
                        bCancelLogon = true;
                        break;
                    }
                    if (loop.retried()) {
                        loop.showKey("IDS_SINGING");
                        loop.setType(CLoopItem::ButtonCancel);
                        retry = true;
                        break;
                    }
                }
                if (bCancelLogon)
                    return;
            }
            loop.clearRetry(); // and three new attempts
        }
    } catch (const std::exception&) {
        SystemLog::write("Error:ReLogon()");
        iRet = kLogonException;
    }
}

void CBackupManage::logOff(bool /*flag*/) {
    guarded("Error:logOff()", [&] {
        bLogOff = true; // the scheduler ends at its next check
        bExit = true;
        if (TransferApiUtil::shareTransferApiUtil().sessionID().empty())
            return;
        endBackpTask();

        if (pLogonThread && pLogonThread->isCurrent()) {
            // Called by the logon thread while the logon's dialog is up: a second modal
            // dialog cannot be shown from a worker, so the log-off runs here, silently,
            // and the logon's dialog stays with the logon.
            CLoopItem* logonDialog = loopItem;
            loopItem = nullptr;
            logOffProc();
            loopItem = logonDialog;
            return;
        }

        std::shared_ptr<CLoopItem> dialog = CLoopItem::create();
        pLoopDlg = dialog;
        loopItem = dialog.get();
        pLogonThread = std::make_shared<Thread>([this] { logOffProc(); });
        runUnderDialog(dialog.get(), *pLogonThread, CLoopItem::ButtonCancel);
        loopItem = nullptr;
        pLoopDlg.reset();
        pLogonThread.reset();
    });
}

void CBackupManage::logOffProc() {
    const LoopTalk loop{loopItem, pLogonThread.get()};
    try {
        ViewBackend::pauseForFigures(3); // the last figures of a run stay readable
        loop.showKey("IDS_LOGOFFING");

        // bLogOff is set, so a running scheduler ends at its next check.
        waitForScheduler(*this, &CBackupManage::exitDoscheduleSemaphoreID);
        SystemLog::write("Start to log off.");

        TaskPtr working;
        {
            std::lock_guard lock(managerLock);
            waitingList.clear();
            working = pWorkingTask;
        }
        if (working) {
            // Not under the lock: the finishing run reports its end, which takes it.
            if (std::shared_ptr<TrueProgressCallback> progress = working->GetProgress())
                progress->setBClickedCancel(true);
            working->checkFinshedBackup();
            SetWorkingTask(nullptr);
        }
        {
            std::lock_guard lock(managerLock);
            pSaveTask.reset();
            errTaskList.clear();
            taskList.clear();
        }
        TransferApiUtil::shareTransferApiUtil().Logoff();
        loop.leave();
    } catch (const std::exception&) {
        SystemLog::write("Error:logOffProc()");
        try {
            loop.leave();
        } catch (const std::exception&) {
        }
    }
}

bool CBackupManage::LoadTaskList(const std::string& response) {
    return guarded("Error:LoadTaskList()", false, [&] {
        if (response.empty())
            return false;
        TaskListReply reply(response);
        for (size_t i = 0; i < reply.count(); ++i) {
            TaskPtr task = taskFromReply(reply, i, pcID);
            std::lock_guard lock(managerLock);
            taskList.push_back(std::move(task));
        }
        return true;
    });
}

bool CBackupManage::refreshTaskList() {
    try {
        bRefreshTaskListFlag = true;
        // The reload begins only after a scheduler pass has ended.
        waitForScheduler(*this, &CBackupManage::fineshedDoscheduleSemaphoreID);

        try {
            std::lock_guard lock(managerLock);
            SystemLog::write("refresh task for stop tasks.");
            waitingList.clear();
            for (const TaskPtr& task : taskList) {
                if (task && task != pWorkingTask && task->mTaskState == CBackupTask::StateWaiting)
                    task->setTaskState(CBackupTask::StateIdle);
            }
            if (TaskPtr working = pWorkingTask) {
                // bRefresh ends the run without its closing events, so none of them
                // needs the lock held here while we wait.
                working->bRefresh = true;
                if (std::shared_ptr<TrueProgressCallback> progress = working->GetProgress())
                    progress->setBClickedCancel(true);
                std::shared_ptr<Thread> runThread;
                {
                    std::lock_guard runLock(working->prgBarMutex);
                    runThread = working->pBackupTaskThread;
                }
                if (runThread && runThread->isStarted())
                    CurlHandleController::shared().CancelConnection(runThread->id());
                working->checkFinshedBackup();
                Clock::shared().sleepFor(1);
                SetWorkingTask(nullptr);
            }
        } catch (const std::exception&) {
            SystemLog::write("Error:refreshTaskList, stop task.");
            return false;
        }

        TransferApiUtil::sharePathTreeController().RefreshSvrPath(kServerRoot);

        try {
            CManageTaskList client;
            std::string response = client.getBackupTasks("", "false");
            if (client.iResult != ResultCode::Success)
                return false;
            bool changed = false;
            TaskListReply reply(response);
            for (size_t i = 0; i < reply.count(); ++i) {
                std::optional<Date> backupDate = TaskListReply::dateAt(reply.backupDate, i);
                TaskPtr existing = GetTaskByName(TaskListReply::at(reply.taskName, i));
                if (existing && backupDate && existing->mBackupDate == *backupDate)
                    continue; // unchanged on the service: the same object stays
                changed = true;
                if (existing)
                    RemoveTaskFromTaskList(existing);
                TaskPtr task = taskFromReply(reply, i, pcID);
                std::lock_guard lock(managerLock);
                taskList.push_back(std::move(task));
            }
            if (refreshTaskListForRemoteDeleteTask())
                changed = true;
            // bRefreshTaskListFlag stays set: the host clears it once it has taken over
            // the new list, and until then the scheduler stays idle.
            return changed;
        } catch (const std::exception&) {
            SystemLog::write("Error:refreshTaskList, exception.");
            return false;
        }
    } catch (const std::exception&) {
        SystemLog::write("Error:refreshTaskList, exception.");
        return false;
    }
}

bool CBackupManage::reloadTaskList() {
    return guarded("Error:reloadTaskList()", false, [&] {
        {
            std::lock_guard lock(managerLock);
            if (pWorkingTask)
                return false;
        }
        // Read without the lock: the reply may take a while, and nothing runs meanwhile.
        CManageTaskList client;
        std::string response = client.getBackupTasks("", "false");
        if (client.iResult != ResultCode::Success)
            return false;
        TaskListReply reply(response);
        std::vector<TaskPtr> fresh;
        for (size_t i = 0; i < reply.count(); ++i)
            fresh.push_back(taskFromReply(reply, i, pcID));
        auto byName = [](const std::vector<TaskPtr>& list, const std::string& name) -> TaskPtr {
            for (const TaskPtr& task : list)
                if (task && task->name == name)
                    return task;
            return nullptr;
        };
        std::lock_guard lock(managerLock);
        if (pWorkingTask)
            return false; // a user's start came first; the next pass tries again
        // What the document does not keep: whether a task waits, failed or ran this slot.
        for (const TaskPtr& task : fresh) {
            if (TaskPtr old = byName(taskList, task->name)) {
                task->setTaskState(old->mTaskState);
                task->mLastRunDate = old->mLastRunDate;
                task->bHaveErr = old->bHaveErr.load();
            }
        }
        auto carry = [&](std::vector<TaskPtr>& list) {
            std::vector<TaskPtr> kept;
            for (const TaskPtr& task : list)
                if (TaskPtr now = task ? byName(fresh, task->name) : nullptr)
                    kept.push_back(now);
            list.swap(kept);
        };
        carry(waitingList);
        carry(errTaskList);
        taskList.swap(fresh);
        return true;
    });
}

bool CBackupManage::refreshTaskListForRemoteDeleteTask() {
    return guarded("Error:refreshTaskListForRemoteDeleteTask()", false, [&] {
        std::string names;
        int32_t result = TransferApiUtil::shareTransferApiUtil().getTaskNames("true", names);
        if (result != ResultCode::Success) {
            SystemLog::write("Error:refreshTaskListForRemoteDeleteTask. Get result: " +
                             std::to_string(result));
            return false;
        }
        std::vector<std::string> serviceNames = splitAtBar(names);
        if (serviceNames.empty()) {
            std::lock_guard lock(managerLock);
            taskList.clear();
            return true;
        }

        std::vector<std::string> gone;
        {
            std::lock_guard lock(managerLock);
            for (const TaskPtr& task : taskList) {
                if (!task)
                    continue;
                bool onService = false;
                for (const std::string& name : serviceNames)
                    if (!name.empty() && name == task->name)
                        onService = true;
                if (!onService)
                    gone.push_back(task->name);
            }
        }
        bool removed = false;
        for (const std::string& name : gone)
            if (RemoveTaskFromTaskListByName(name))
                removed = true;
        return removed;
    });
}

} // namespace cirrovault

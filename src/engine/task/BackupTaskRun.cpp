// The run driver: start, the worker thread's stages, the end-of-run state rules and the
// notices that tell the manager and the host where the run stands.
#include <chrono>
#include <exception>
#include <string>
#include <thread>
#include <utility>

#include "engine/task/CBackupTask.h"
#include "platform/framework/CurlHandleController.h"
#include "platform/framework/Functions.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/PathTreeController.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/Clock.h"
#include "platform/os/SystemLog.h"
#include "platform/view/ViewBackend.h"
#include "support/CErrorLog.h"
#include "support/GlobalFunction.h"

namespace cirrovault {

namespace {

constexpr int32_t kInfoEntry = 0;
constexpr int32_t kErrorEntry = 2;
constexpr double kRetryStepSeconds = 7200;         // per consecutive failure
constexpr double kCancelledWindowDelay = 151'200;  // a cancelled bounded-window run: 42 h
constexpr double kCloseNoticePause = 2;            // lets a window show the final figures

bool cancelRequested(const std::shared_ptr<TrueProgressCallback>& progress) {
    return progress && (progress->IsClickedCancel() || progress->IsCancelled());
}

} // namespace

bool CBackupTask::StartBackup(bool /*flag*/) {
    try {
        if (bDeleting)
            return false;
        auto progress = std::make_shared<TrueProgressCallback>();
        if (progress->IsCancelled() || progress->IsPaused())
            return false;
        {
            std::lock_guard lock(prgBarMutex);
            pPrgBar = progress;
        }
        setTaskState(StateRunning);
        bHaveErr = false;

        Date now = Clock::shared().now();
        DateComponents parts =
            Functions::GetDateComponentsFromNSDateAndNSCalendar(now, CalendarUnit::Second);
        mLastRunDate = now.addingTimeInterval(-parts.second);
        runStartDate = now;

        // The worker uses the task without owning it: the manager keeps its tasks for
        // longer than any run, and a worker that owned its task could end up destroying
        // its own thread object.
        auto worker = std::make_shared<Thread>([this] { BackupThreadProc(); });
        {
            std::lock_guard lock(prgBarMutex);
            pBackupTaskThread = worker; // joins the previous run's finished thread
            // Made before the worker starts, so that checkFinshedBackup called right
            // after this returns waits for the run. A run without a server folder ends
            // before any work and has nothing to wait for.
            if (!serverPath.empty())
                backupSemaphoreID = std::make_shared<Semaphore>();
        }
        runDelegateFun(beginUploadTaskDelegate);
        worker->start();
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupTask::StartBackup()");
    }
    return false;
}

void CBackupTask::BackupThreadProc() {
    try {
        if (serverPath.empty()) {
            SystemLog::write(name + " server path is empty.");
            CErrorLog::recordError(name, taskID, LoadString::Format("ServerPathError", name),
                                   kErrorEntry);
            return;
        }
        TransferApiUtil::sharePathTreeController().RefreshSvrPath(serverPath);
        CErrorLog::recordError(name, taskID, LoadString::GetValueByKey("EventLogStart", ""),
                               kInfoEntry);

        uiTaskCurrentUploadSize = 0;
        iBackupRet = ResultCode::Success;
        bHaveErr = false;
        bInitUIPrgBar = false;
        bRefresh = false;

        if (localDirList.empty()) {
            int64_t code = loadFilePathListFromDB();
            if (code != ResultCode::Success) {
                iBackupRet = ResultCode::Failure;
                // iBackupRet is 3 here, so the not-logged-on entry is never written.
                if (iBackupRet == static_cast<uint64_t>(ResultCode::NotLoggedOn))
                    CErrorLog::recordError(name, taskID,
                                           LoadString::GetValueByKey("OrvoNotLogon", ""),
                                           kErrorEntry);
                else
                    getBackupTaskResult(iBackupRet, "", "");
            }
        }

        if (scanFileArray.empty()) {
            uiNeedSpace = 0;
            fileTotalSize = 0;
            SystemLog::write("CalculateBackupSize");
            CalculateBackupSize();
        }

        // A cancel here skips the remaining stages but leaves iBackupRet as it is.
        if (!cancelRequested(pPrgBar)) {
            runDelegateFun(checkAccountSpaceDelegate);
            SystemLog::write("CheckAccountSpace");
            CheckAccountSpace(uiNeedSpace);
            if (iBackupRet != static_cast<uint64_t>(ResultCode::Success)) {
                getBackupTaskResult(iBackupRet, "", "");
            } else {
                int64_t code = 0;
                bool made = GlobalFunction::CreateSrvFolder(serverPath, description, name, &code);
                if (!made && code == ResultCode::Failure) {
                    CheckNetwork();
                    made = GlobalFunction::CreateSrvFolder(serverPath, description, name, &code);
                }
                if (made) {
                    iBackupRet = ResultCode::Success;
                } else {
                    iBackupRet = static_cast<uint64_t>(code);
                    getBackupTaskResult(iBackupRet, "", "");
                }
                if (pPrgBar)
                    pPrgBar->setTotalSize(fileTotalSize);
                SystemLog::write("Beginup upload data");
                if (iBackupRet == static_cast<uint64_t>(ResultCode::Success)) {
                    BeginUploadingData();
                    makeStoredDurable();
                }
            }
        }

        scanFileArray.clear();
        SystemLog::write("FinishBackup");
        FinishBackup();
        if (!bHaveErr && iBackupRet == static_cast<uint64_t>(ResultCode::Success))
            CErrorLog::recordError(name, taskID, LoadString::GetValueByKey("EventLogFinish", ""),
                                   kInfoEntry);
    } catch (const std::exception&) {
        SystemLog::write("Error: backupt thread proc");
    }
}

// A run is said to be done only once the store has made what it sent durable (the local
// store syncs its file system, a WebDAV store writes what waits in memory).
void CBackupTask::makeStoredDurable() {
    int64_t code = TransferApiUtil::shareTransferApiUtil().Flush();
    if (code == ResultCode::Success)
        return;
    bHaveErr = true;
    if (iBackupRet == static_cast<uint64_t>(ResultCode::Success))
        iBackupRet = static_cast<uint64_t>(code);
    getBackupTaskResult(static_cast<uint64_t>(code), "", "");
}

void CBackupTask::FinishBackup() {
    std::shared_ptr<Semaphore> finished;
    {
        std::lock_guard lock(prgBarMutex);
        finished = backupSemaphoreID;
    }
    try {
        if (pPrgBar)
            pPrgBar->setBClickedCancel(false);
        const int32_t kind = taskType & ScheduleKindMask;
        const bool scheduled = kind == ScheduleDaily || kind == ScheduleWeekly ||
                               kind == ScheduleBetweenDates;
        const uint64_t cancelled = static_cast<uint64_t>(ResultCode::Cancelled);
        const Date now = Clock::shared().now();

        if (!bHaveErr && (iBackupRet == 0 || iBackupRet == cancelled)) {
            iErrorTimes = 0;
            if (iBackupRet == 0)
                mBackupDate = now;
            if ((kind == ScheduleDaily || kind == ScheduleWeekly) &&
                (mDating <= mBackupDate || iBackupRet == cancelled))
                SetNextDating();
            if (kind == ScheduleBetweenDates && iBackupRet == cancelled)
                mDating = mDating.addingTimeInterval(kCancelledWindowDelay);
            bResume = false;
            if (iBackupRet == 0) {
                setTaskState(StateSucceeded);
                blogModify = true;
            } else {
                setTaskState(StateCancelled);
            }
        } else if (iBackupRet == cancelled) {
            iErrorTimes = 0;
            setTaskState(StateCancelled);
            if (scheduled)
                SetNextDating();
        } else {
            setTaskState(StateFailed);
            ++iErrorTimes;
            // No upper bound: every consecutive failure waits two hours longer.
            mResumeDate = now.addingTimeInterval(iErrorTimes * kRetryStepSeconds);
            if (scheduled)
                SetNextDating();
            bResume = true;
        }

        if (iBackupRet != static_cast<uint64_t>(ResultCode::Failure)) {
            if (blogModify)
                uploadTaskList("Edit", name);
            if (mTaskState != StateFailed && mTaskState != StateCancelled)
                setTaskState(StateSucceeded);
        }
        sendLogByEmail(static_cast<int>(iBackupRet));
    } catch (const std::exception&) {
        SystemLog::write("Error: finish backup.");
        std::lock_guard lock(prgBarMutex);
        pPrgBar.reset();
        return;
    }

    try {
        if (finished)
            finished->signal();
        if (!bLogOff) {
            if (bRefresh) {
                if (pPrgBar)
                    pPrgBar->SetDelegate(nullptr);
            } else {
                ViewBackend::pauseForFigures(kCloseNoticePause);
                runDelegateFun(closeProgressBarViewDelegate);
                if (pPrgBar)
                    pPrgBar->SetDelegate(nullptr);
                runDelegateFun(finishedTaskDelegate);
                runDelegateFun(endUploadTaskDelegate);
            }
        }
    } catch (const std::exception&) {
        SystemLog::write("Error: finish backup.");
    }
    std::lock_guard lock(prgBarMutex);
    pPrgBar.reset();
}

bool CBackupTask::checkFinshedBackup() {
    try {
        std::shared_ptr<Semaphore> finished;
        {
            std::lock_guard lock(prgBarMutex);
            finished = backupSemaphoreID;
        }
        // A run that never made its semaphore (no server path) has nothing to wait for.
        if (finished)
            finished->wait();
        std::shared_ptr<Thread> worker;
        {
            std::lock_guard lock(prgBarMutex);
            backupSemaphoreID.reset();
            // A worker still sending its closing notices (they take the manager's lock,
            // which our caller may hold) is not joined here: the next start or the
            // task's end does that once it has finished.
            if (pBackupTaskThread && pBackupTaskThread->isFinished())
                worker = std::move(pBackupTaskThread);
        }
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupTask::checkFinshedBackup()");
    }
    return true;
}

bool CBackupTask::hasRunEnded() const {
    std::lock_guard lock(prgBarMutex);
    return !pBackupTaskThread || pBackupTaskThread->isFinished();
}

void CBackupTask::waitForRunThread() {
    std::shared_ptr<Thread> worker;
    {
        std::lock_guard lock(prgBarMutex);
        worker = pBackupTaskThread;
    }
    if (!worker || worker->isCurrent())
        return;
    worker->join();
    // Another thread may be joining it at the same moment; then join returns at once.
    while (worker->isStarted() && !worker->isFinished())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

bool CBackupTask::RefreshProgressInfo(std::shared_ptr<TrueProgressCallback> progress) {
    try {
        {
            std::lock_guard lock(prgBarMutex);
            pPrgBar = std::move(progress);
        }
        runDelegateFun(refreshProgressBarDelegate);
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupTask::RefreshProgressInfo()");
    }
    return true;
}

void CBackupTask::runDelegateFun(StowlineDelegateType nType) {
    try {
        StowlineDelegate* receiver = GetDelegate();
        if (!receiver)
            return;
        if (!receiver->StowlineDelegateFun(weak_from_this().lock(), nType))
            SystemLog::write("Error: runDelegateFun:(enum StowlineDelegateType)nType.");
    } catch (const std::exception&) {
        SystemLog::write("Error: runDelegateFun:(enum StowlineDelegateType)nType.");
    }
}

std::shared_ptr<TrueProgressCallback> CBackupTask::GetProgress() const {
    std::lock_guard lock(prgBarMutex);
    return pPrgBar;
}

void CBackupTask::CancelBackup() {
    try {
        std::shared_ptr<TrueProgressCallback> progress;
        std::shared_ptr<Thread> worker;
        {
            std::lock_guard lock(prgBarMutex);
            progress = pPrgBar;
            worker = pBackupTaskThread;
        }
        if (progress) {
            progress->setBClickedCancel(true);
            progress->setCancelled(true);
        }
        if (worker && worker->isStarted() && !worker->isFinished())
            CurlHandleController::shared().CancelConnection(worker->id());
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupTask::CancelBackup()");
    }
}

} // namespace cirrovault

// The scheduler thread, the due test, the waiting list and the user's start, stop, pause
// and un-queue operations. At most one task runs at a time; the waiting list is first in,
// first out, and only its head is ever started.
#include <cmath>
#include <exception>
#include <mutex>

#include "engine/manager/CBackupManage.h"
#include "platform/framework/CurlHandleController.h"
#include "platform/framework/Functions.h"
#include "platform/os/Clock.h"
#include "platform/os/SystemLog.h"

namespace cirrovault {

namespace {

constexpr double kPassPause = 2;     // seconds between scheduler passes
constexpr double kOneDay = 86'400;   // seconds
// Year, month, day and second: enough to find the seconds past the minute.
constexpr uint32_t kMinuteUnits = CalendarUnit::Year | CalendarUnit::Month | CalendarUnit::Day |
                                  CalendarUnit::Second;

bool isScheduledKind(int32_t kind) {
    return kind == CBackupTask::ScheduleDaily || kind == CBackupTask::ScheduleWeekly ||
           kind == CBackupTask::ScheduleBetweenDates;
}

} // namespace

CBackupManage::ScheduleThreadStopper::~ScheduleThreadStopper() {
    std::shared_ptr<Thread> scheduler = owner->pScheduleThread;
    if (!scheduler || !scheduler->isStarted() || scheduler->isFinished())
        return;
    owner->bExit = true;
    scheduler->join();
}

void CBackupManage::doScheduleTaskThreadMethod() {
    try {
        if (pScheduleThread && pScheduleThread->isStarted() && !pScheduleThread->isFinished()) {
            // The previous scheduler is either on its way out (it saw the flags) or still
            // running; two schedulers would start tasks side by side.
            if (!bExit && !bLogOff) {
                SystemLog::write("Error: the schedule thread is already running.");
                return;
            }
        }
        if (pScheduleThread)
            pScheduleThread->join();
        pScheduleThread = std::make_shared<Thread>([this] { doScheduleTaskProc(); });
        pScheduleThread->start();
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupManage::doScheduleTaskThreadMethod()");
    }
}

void CBackupManage::doScheduleTaskProc() {
    // A waiter may have taken the exit semaphore just before a pass replaced it, so the
    // replaced one is signalled on leaving as well.
    std::shared_ptr<Semaphore> previousExit;
    auto leave = [&] {
        std::shared_ptr<Semaphore> exitNow;
        {
            std::lock_guard lock(managerLock);
            exitNow = exitDoscheduleSemaphoreID;
        }
        if (exitNow)
            exitNow->signal();
        if (previousExit && previousExit != exitNow)
            previousExit->signal();
    };
    try {
        Clock::shared().sleepFor(kPassPause);
        for (;;) {
            std::shared_ptr<Semaphore> passDone = std::make_shared<Semaphore>();
            {
                std::lock_guard lock(managerLock);
                previousExit = exitDoscheduleSemaphoreID;
                exitDoscheduleSemaphoreID = std::make_shared<Semaphore>();
                fineshedDoscheduleSemaphoreID = passDone;
            }
            if (bExit || bLogOff)
                break;

            Clock::shared().sleepFor(kPassPause);
            if (schedulerHooks && !bExit && !bLogOff)
                schedulerHooks->betweenPasses();
            {
                std::lock_guard lock(managerLock);
                if (bExit || bLogOff)
                    break;
                SystemLog::write("do schedule checking need backup task.");
                queueDueTasks();
            }
            if (bExit || bLogOff)
                break;

            {
                std::lock_guard lock(managerLock);
                SystemLog::write("do schedule checking working task");
                startWaitingTask();
            }
            passDone->signal();
        }
        SystemLog::write("Exit do schedule.");
    } catch (const std::exception&) {
        SystemLog::write("Error: do schedule task proc.");
        SystemLog::write("Exit do schedule.");
    }
    try {
        leave();
    } catch (const std::exception&) {
        SystemLog::write("Error: do schedule task proc.");
    }
}

void CBackupManage::queueDueTasks() {
    // By index: a host answering event 7 may call back into the manager.
    for (size_t i = 0;; ++i) {
        if (bExit || i >= taskList.size())
            break;
        TaskPtr task = taskList[i];
        if (bLogOff)
            break;
        if (bRefreshTaskListFlag || !nowDating(task) || findTaskFromWaitingList(task) ||
            isWorkingTask(task))
            continue;
        waitingList.push_back(task);
        if (isWorkingTask(task))
            continue;
        task->setTaskState(CBackupTask::StateWaiting);
        task->bHaveErr = false;
        SystemLog::write("beginUploadTaskDelegate");
        if (callHostDelegate(task, scheduleTaskDelegate) == false)
            SystemLog::write(
                "Error: beginUploadTaskDelegate or endUploadTaskDelegate manage delegate.");
    }
}

void CBackupManage::startWaitingTask() {
    // A run that ended without its closing notice (it never started because the task is
    // being deleted, or it had no server folder) would otherwise hold the place forever.
    if (pWorkingTask && pWorkingTask->hasRunEnded()) {
        SystemLog::write("The working task ended without its closing notice.");
        if (pWorkingTask->mTaskState == CBackupTask::StateRunning)
            pWorkingTask->setTaskState(CBackupTask::StateFailed);
        SetWorkingTask(nullptr);
    }
    if (waitingList.empty() || pWorkingTask || bLogOff || bRefreshTaskListFlag)
        return;
    TaskPtr top = getTopTaskFromWaitingList();
    if (!top || isWorkingTask(top) || bLogOff)
        return;
    Date limit = Clock::shared().now().addingTimeInterval(kOneDay);
    if (top->bHaveErr ||
        (top->mTaskState == CBackupTask::StateCancelled && limit < top->mLastRunDate)) {
        RemoveTaskFromWaitlist(top);
        return;
    }
    if (schedulerHooks && !schedulerHooks->mayStartRun(top->name))
        return; // another process runs the account's tasks; the head waits for it
    SetWorkingTask(top);
    top->SetDelegate(this);
    RemoveTaskFromWaitlist(top);
    top->StartBackup(false);
}

bool CBackupManage::nowDating(const TaskPtr& task) {
    try {
        std::lock_guard lock(managerLock);
        // A task without a server folder fails at once; queueing it on every pass would
        // only fill the event log. The user can still start it and see why.
        if (!task || bExit || bLogOff || task->pcID != pcID || task->bMigrateTask ||
            task == pWorkingTask || task->bDeleting || task->serverPath.empty())
            return false;

        const Date now = Clock::shared().now();
        if (task->bResume && task->mResumeDate <= now)
            return true; // an interrupted run goes on whatever the schedule says

        DateComponents parts = Functions::GetDateComponentsFromNSDateAndNSCalendar(now, kMinuteUnits);
        // Only the whole seconds go: with the fraction kept, a slot is due within its own
        // minute, and 23:59 is not pushed into the next day.
        const Date minute = now.addingTimeInterval(-std::floor(parts.second));

        const int32_t kind = task->taskType & CBackupTask::ScheduleKindMask;
        if (kind == CBackupTask::ScheduleNone)
            return false;
        if (kind == CBackupTask::ScheduleBetweenDates && task->mBackupDate >= task->mBeginDate &&
            task->mBackupDate <= task->mEndDate && task->mBackupDate >= task->mDating)
            return false; // this period was backed up after its scheduled time
        if (minute < task->mBeginDate || minute > task->mEndDate)
            return false;

        if (kind == CBackupTask::ScheduleWeekly) {
            if (Functions::getDayOfWeekly(task->mDating) != Functions::getDayOfWeekly(minute))
                return false;
        } else if (kind == CBackupTask::ScheduleDaily || kind == CBackupTask::ScheduleBetweenDates) {
            if (task->mDating < task->mBeginDate)
                return false;
            if (task->mLastRunDate == task->mDating)
                return false; // this scheduled time has already run
            const int32_t state = task->mTaskState;
            if (state == CBackupTask::StateCancelled || state == CBackupTask::StateFailed) {
                if (minute < task->mDating)
                    return false;
                task->setTaskState(CBackupTask::StateIdle);
                return true;
            }
            if (task->mBackupDate > task->mDating &&
                task->mBackupDate.timeIntervalSinceDate(task->mDating) < kOneDay)
                return false; // backed up within a day after the scheduled time
        } else {
            return false;
        }
        return minute > task->mDating;
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupManage::nowDating()");
        return false;
    }
}

bool CBackupManage::AddTaskToWaitList(const TaskPtr& task, bool bWaiting) {
    try {
        std::lock_guard lock(managerLock);
        if (!task)
            return false;
        if (!bWaiting && isWorkingTask(task))
            return false;
        if (findTaskFromWaitingList(task)) {
            SystemLog::write("Find task from waiting list");
            return false;
        }
        waitingList.push_back(task);
        if (!isWorkingTask(task))
            task->setTaskState(CBackupTask::StateWaiting);
        return true;
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupManage::AddTaskToWaitList()");
        return false;
    }
}

bool CBackupManage::RemoveTaskFromWaitlist(const TaskPtr& task) {
    try {
        std::lock_guard lock(managerLock);
        if (!task)
            return true;
        for (auto it = waitingList.begin(); it != waitingList.end(); ++it) {
            if (*it && (*it)->name == task->name) {
                waitingList.erase(it);
                task->setTaskState(CBackupTask::StateIdle);
                break;
            }
        }
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupManage::RemoveTaskFromWaitlist()");
    }
    return true;
}

bool CBackupManage::findTaskFromWaitingList(const TaskPtr& task) {
    try {
        std::lock_guard lock(managerLock);
        if (!task)
            return false;
        for (const auto& queued : waitingList)
            if (queued && queued->name == task->name)
                return true;
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupManage::findTaskFromWaitingList()");
    }
    return false;
}

CBackupManage::TaskPtr CBackupManage::getTopTaskFromWaitingList() {
    std::lock_guard lock(managerLock);
    return waitingList.empty() ? nullptr : waitingList.front();
}

bool CBackupManage::StartBackupByUser(const std::string& taskName, bool bByChangeEvent) {
    try {
        TaskPtr task = GetTaskByName(taskName);
        if (!task)
            return false;
        // Held across the start so that the scheduler cannot start another task between
        // the check and the start.
        std::lock_guard lock(managerLock);
        if (pWorkingTask) {
            if (!bByChangeEvent)
                return AddTaskToWaitList(task, false);
            SystemLog::write("Cannot start the task as there are other task running");
            return false;
        }
        if (schedulerHooks && !schedulerHooks->mayStartRun(task->name))
            return bByChangeEvent ? false : AddTaskToWaitList(task, false);
        SetWorkingTask(task);
        RemoveTaskFromWaitlist(task);
        task->SetDelegate(this);
        task->StartBackup(bByChangeEvent);
        SystemLog::write("Start task");
        return true;
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupManage::StartBackupByUser()");
        return false;
    }
}

bool CBackupManage::stopBackupTask(const std::string& taskName) {
    try {
        TaskPtr task = GetTaskByName(taskName);
        if (!task)
            return true;
        if (task->mTaskState == CBackupTask::StateRunning) {
            std::shared_ptr<TrueProgressCallback> progress = task->GetProgress();
            if (progress)
                progress->setBClickedCancel(true);
            std::shared_ptr<Thread> worker;
            {
                std::lock_guard lock(task->prgBarMutex);
                worker = task->pBackupTaskThread;
            }
            if (worker && worker->isStarted())
                CurlHandleController::shared().CancelConnection(worker->id());
        }
        // Not under the manager's lock: the finishing run needs it for its last events.
        task->checkFinshedBackup();
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupManage::stopBackupTask()");
    }
    return true;
}

bool CBackupManage::StopWaitingTask(const std::string& taskName) {
    try {
        TaskPtr task = GetTaskByName(taskName);
        if (!task)
            return false;
        std::lock_guard lock(managerLock);
        RemoveTaskFromWaitlist(task);
        // Otherwise the slot just skipped would be found due again at the next pass.
        if (isScheduledKind(task->taskType & CBackupTask::ScheduleKindMask))
            task->SetNextDating();
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupManage::StopWaitingTask()");
    }
    return false;
}

bool CBackupManage::endBackpTask() {
    try {
        // A task the scheduler started meanwhile is ended too; bLogOff, set by the caller,
        // keeps it from starting more, so this ends within a few rounds.
        for (int round = 0; round < 3; ++round) {
            TaskPtr task;
            {
                std::lock_guard lock(managerLock);
                task = pWorkingTask;
                if (!task)
                    break;
                // With bLogOff set the finishing run sends no end events from here on.
                task->bLogOff = true;
                if (std::shared_ptr<TrueProgressCallback> progress = task->GetProgress())
                    progress->setBClickedCancel(true);
            }
            // Waited for without the manager's lock: a run already past its bLogOff test
            // still ends through finishedTaskDelegate, which takes that lock.
            task->checkFinshedBackup();
            task->waitForRunThread();
            std::lock_guard lock(managerLock);
            // Cleared only once the thread ended: the run reads it after its semaphore.
            task->bLogOff = false;
            if (pWorkingTask == task)
                SetWorkingTask(nullptr);
        }
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupManage::endBackpTask()");
    }
    return true;
}

void CBackupManage::pauseUpload(const std::string& taskName, bool bPause) {
    try {
        TaskPtr task = GetTaskByName(taskName);
        if (!task || task->mTaskState != CBackupTask::StateRunning)
            return;
        if (std::shared_ptr<TrueProgressCallback> progress = task->GetProgress())
            progress->setPaused(bPause);
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupManage::pauseUpload()");
    }
}

} // namespace cirrovault

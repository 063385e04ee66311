// The scheduler against real runs on a local store, one pass at a time through a gated clock.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <thread>

#include "common/LocalDate.h"
#include "engine/manager/ManagerDoubles.h"

using namespace cirrovault;
using test::GatedClock;

namespace {

using TaskPtr = std::shared_ptr<CBackupTask>;
constexpr double T = 1'700'000'000.0;
constexpr uint64_t kPc = 7;

class BackupManageSchedulerThread : public test::ManagerSession {
protected:
    void SetUp() override {
        ManagerSession::SetUp();
        clock_->gateWhen(
            [this] { return manager_.pScheduleThread && manager_.pScheduleThread->isCurrent(); });
        Clock::setShared(clock_);
    }
    void TearDown() override {
        if (manager_.pScheduleThread && !manager_.pScheduleThread->isFinished())
            stopScheduler();
        ManagerSession::TearDown();
    }

    // A listed task, daily and due since a minute ago, or with no schedule.
    TaskPtr addTask(const std::string& name, int32_t type = CBackupTask::ScheduleDaily) {
        TaskPtr task = manager_.taskList.emplace_back(makeTask(name, Date(T - 120)));
        task->taskType = type;
        return task;
    }
    template <class F> auto locked(F read) {
        std::lock_guard lock(manager_.managerLock);
        return read();
    }

    void startScheduler() {
        manager_.doScheduleTaskThreadMethod();
        clock_->waitForSleeper(); // the pause before the first pass
        clock_->releaseSleeper(2);
        clock_->waitForSleeper(); // inside the first pass, its semaphores made
    }
    // Lets exactly one pass run and waits until it has signalled its end.
    void pass() {
        auto done = locked([&] { return manager_.fineshedDoscheduleSemaphoreID; });
        clock_->releaseSleeper(2);
        done->wait();
        clock_->waitForSleeper();
    }
    void stopScheduler() {
        auto exited = locked([&] { return manager_.exitDoscheduleSemaphoreID; });
        manager_.bExit = true;
        clock_->releaseSleeper(2);
        exited->wait();
        manager_.pScheduleThread->join();
    }
    // "working | queued queued"
    std::string lists() {
        return locked([&] {
            std::string out = manager_.pWorkingTask ? manager_.pWorkingTask->name : "";
            out += " |";
            for (const auto& task : manager_.waitingList)
                out += " " + task->name;
            return out;
        });
    }
    // Runs op (which waits for the held run) on another thread; lets the run go on once
    // op has cancelled it.
    void whileHeld(const TaskPtr& task, std::function<void()> op, bool nextPass = false) {
        std::thread caller(std::move(op));
        auto progress = task->GetProgress();
        while (!progress->IsClickedCancel())
            std::this_thread::yield();
        host_.release();
        if (nextPass)
            clock_->releaseSleeper();
        caller.join();
    }

    std::shared_ptr<GatedClock> clock_ = std::make_shared<GatedClock>(Date(T));
};

// The reload flag keeps the passes going but queues and starts nothing; while the host
// (the daemon) may not run, due and user-started tasks wait in order behind the queued one;
// then they run one at a time.
TEST_F(BackupManageSchedulerThread,
       ReloadFlagAndHooksHoldRunsBackThenDueTasksRunInOrderOneAtATime) {
    struct Hooks : SchedulerHooks {
        std::atomic<bool> open{false};
        std::atomic<int> asked{0}, ended{0}, passes{0};
        bool mayStartRun(const std::string&) override { return ++asked, open.load(); }
        void runEnded() override { ++ended; }
        void betweenPasses() override { ++passes; }
    } hooks;
    manager_.schedulerHooks = &hooks;
    TaskPtr a = addTask("A"), b = addTask("B"), c = addTask("C", 0), d = addTask("D", 0);
    EXPECT_TRUE(manager_.AddTaskToWaitList(c, false));
    manager_.bRefreshTaskListFlag = true;
    host_.hold("C");
    startScheduler();
    pass();
    pass();
    EXPECT_TRUE(host_.events().empty());
    EXPECT_EQ(lists(), " | C");

    manager_.bRefreshTaskListFlag = false;
    pass();
    pass();
    EXPECT_TRUE(manager_.StartBackupByUser("D", false)); // queued, not refused
    EXPECT_EQ(host_.events(), (std::vector<std::string>{"A:7", "B:7"}));
    EXPECT_EQ(lists(), " | C A B D");
    EXPECT_GE(hooks.asked.load(), 3);
    EXPECT_GE(hooks.passes.load(), 4);

    hooks.open = true;
    pass();
    host_.waitHeld();
    pass(); // while C runs, passes leave the queue alone
    pass();
    EXPECT_EQ(lists(), "C | A B D");
    host_.release();
    for (const char* name : {"C", "A", "B", "D"}) {
        host_.waitFor(std::string(name) + ":2");
        pass();
    }
    pass(); // each is queued once only: its next slot is tomorrow
    EXPECT_EQ(host_.events(),
              (std::vector<std::string>{"A:7", "B:7", "C:1", "C:5", "C:2", "A:1", "A:5", "A:2",
                                        "B:1", "B:5", "B:2", "D:1", "D:5", "D:2"}));
    EXPECT_EQ(hooks.ended.load(), 4);
    for (const auto& task : {a, b, c, d}) {
        EXPECT_EQ(task->mTaskState, CBackupTask::StateSucceeded) << task->name;
        EXPECT_TRUE(exists("\\Backups\\" + task->name + "\\" + task->name + "\\b.txt"));
    }
    EXPECT_EQ(lists(), " |");
    stopScheduler();
    manager_.schedulerHooks = nullptr;
}

// A queued task whose deletion began while it waited must not hold the running place.
TEST_F(BackupManageSchedulerThread,
       UserStartQueuesWhileBusyStopAndPauseActOnTheRunAndARunThatNeverStartedDoesNotBlock) {
    // only the user starts them
    TaskPtr a = addTask("A", 0), gone = addTask("Gone", 0), b = addTask("B", 0);
    startScheduler();

    host_.hold("A");
    EXPECT_FALSE(manager_.StartBackupByUser("Nobody", false));
    EXPECT_TRUE(manager_.StartBackupByUser("A", false));
    host_.waitHeld();

    EXPECT_FALSE(manager_.StartBackupByUser("B", true));
    EXPECT_TRUE(
        SystemLog::capturedContains("Cannot start the task as there are other task running"));
    locked([&] {
        manager_.AddTaskToWaitList(gone, false);
        return gone->bDeleting = true;
    });
    EXPECT_TRUE(manager_.StartBackupByUser("B", false));
    EXPECT_FALSE(manager_.StartBackupByUser("B", false));
    EXPECT_EQ(lists(), "A | Gone B");
    EXPECT_EQ(b->mTaskState, CBackupTask::StateWaiting);

    manager_.pauseUpload("A", true);
    EXPECT_TRUE(a->GetProgress()->IsPaused());
    manager_.pauseUpload("A", false);
    EXPECT_FALSE(a->GetProgress()->IsPaused());
    manager_.pauseUpload("B", true); // not running: nothing to pause
    EXPECT_EQ(b->GetProgress(), nullptr);

    pass();
    EXPECT_EQ(lists(), "A | Gone B");

    whileHeld(a, [&] { EXPECT_TRUE(manager_.stopBackupTask("A")); });
    EXPECT_EQ(a->mTaskState, CBackupTask::StateCancelled);
    EXPECT_FALSE(exists("\\Backups\\A\\A\\b.txt"));
    host_.waitFor("A:2");

    pass(); // starts Gone, whose run ends at once
    pass(); // frees the place and starts B
    host_.waitFor("B:2");
    EXPECT_EQ(host_.countOf("Gone:2"), 0u);
    EXPECT_TRUE(SystemLog::capturedContains("The working task ended without its closing notice."));
    EXPECT_EQ(b->mTaskState, CBackupTask::StateSucceeded);
    EXPECT_TRUE(exists("\\Backups\\B\\B\\b.txt"));
}

TEST_F(BackupManageSchedulerThread, EndingTheRunAndUnqueueingLeaveNothingBehind) {
    TaskPtr a = addTask("A"), b = addTask("B");
    host_.hold("A");
    startScheduler();
    pass();
    host_.waitHeld();
    EXPECT_EQ(lists(), "A | B");
    EXPECT_FALSE(manager_.StopWaitingTask("B"));
    EXPECT_EQ(lists(), "A |");
    EXPECT_EQ(b->mTaskState, CBackupTask::StateIdle);
    EXPECT_GT(b->mDating, clock_->now()); // the skipped slot is not due again

    whileHeld(a, [&] { EXPECT_TRUE(manager_.endBackpTask()); });
    EXPECT_EQ(lists(), " |");
    EXPECT_FALSE(a->bLogOff);

    pass();
    pass();
    // The ended run may still send its closing events; nothing else may happen.
    std::vector<std::string> others;
    for (const auto& e : host_.events())
        if (e != "A:5" && e != "A:2")
            others.push_back(e);
    EXPECT_EQ(others, (std::vector<std::string>{"A:7", "B:7", "A:1"}));
    EXPECT_EQ(lists(), " |");
}

TEST_F(BackupManageSchedulerThread, LogOffEndsTheRunThenTheSchedulerAndEmptiesTheLists) {
    api().Logoff(); // without a session only the flags are set
    TaskPtr idle = std::make_shared<CBackupTask>();
    manager_.taskList = {idle};
    manager_.logOff(false);
    EXPECT_TRUE(manager_.bLogOff && manager_.bExit);
    EXPECT_EQ(manager_.taskList.size(), 1u);
    EXPECT_EQ(SystemLog::capturedCount("Start to log off."), 0u);

    ASSERT_EQ(api().Logon("alice", "secret"), ResultCode::Success);
    manager_.bLogOff = manager_.bExit = false;
    TaskPtr running = addTask("Run", 0);
    manager_.AddErrTask(idle);
    manager_.pSaveTask = idle;
    startScheduler();
    const Date before = clock_->now();
    host_.hold("Run");
    ASSERT_TRUE(manager_.StartBackupByUser("Run", false));
    host_.waitHeld();
    manager_.AddTaskToWaitList(idle, false);

    whileHeld(running, [&] { manager_.logOff(false); }, /*nextPass=*/true);
    manager_.pScheduleThread->join();
    std::vector<std::string> log = SystemLog::captured();
    auto at = [&](const std::string& line) {
        return std::find(log.begin(), log.end(), line) - log.begin();
    };
    ASSERT_LT(at("Exit do schedule."), static_cast<long>(log.size()));
    EXPECT_LT(at("Exit do schedule."), at("Start to log off."));
    EXPECT_EQ(host_.events(), (std::vector<std::string>{"Run:1"})); // no end events
    EXPECT_NE(running->mTaskState, CBackupTask::StateRunning);
    EXPECT_EQ(lists(), " |");
    EXPECT_EQ(manager_.pSaveTask, nullptr);
    EXPECT_EQ(manager_.taskList.size() + manager_.errTaskList.size(), 0u);
    EXPECT_TRUE(api().sessionID().empty());
    EXPECT_EQ(clock_->now(), before); // no window shows figures, so no pause for one
}

// Logging off while a run is closing: the run may already be past its test of the log-off
// flag and on its way to the manager's lock, so the log-off must not hold that lock while
// it waits for the run.
using BackupManageLogOffThread = test::ManagerSession;

TEST_F(BackupManageLogOffThread, LogOffWhileARunIsClosingEndsIt) {
    auto task = makeTask("Closing", Date::now().addingTimeInterval(86400 * 30)); // not due
    host_.hold("Closing", closeProgressBarViewDelegate);
    ASSERT_TRUE(manager_.AddTask(task));
    ASSERT_TRUE(manager_.StartBackupByUser(task->name, false));
    host_.waitHeld();

    manager_.bLogOff = true;
    auto ended = std::async(std::launch::async, [&] { return manager_.endBackpTask(); });
    // Let the log-off reach its wait for the run before the run goes on to the lock.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    host_.release();
    ASSERT_EQ(ended.wait_for(std::chrono::seconds(20)), std::future_status::ready)
        << "the log-off and the closing run wait for each other";
    EXPECT_EQ(manager_.pWorkingTask, nullptr);
    EXPECT_EQ(task->mTaskState, CBackupTask::StateSucceeded);
    EXPECT_FALSE(task->bLogOff);
}

// ---- The due test and the waiting list, without the thread ----

class BackupManageDue : public ::testing::Test {
protected:
    void SetUp() override {
        clock_ = std::make_shared<ManualClock>(test::localDate(2024, 3, 5, 9, 1, 10));
        Clock::setShared(clock_);
        SystemLog::startCapture();
        manager_.pcID = kPc;
    }
    void TearDown() override {
        SystemLog::stopCapture();
        Clock::setShared(nullptr);
    }
    // Daily at 09:00 on 5 March 2024, never run.
    TaskPtr daily(const std::string& name = "Daily") {
        auto task = std::make_shared<CBackupTask>();
        task->name = name;
        task->pcID = kPc;
        task->taskType = CBackupTask::ScheduleDaily;
        task->mBeginDate = test::localDate(2024, 1, 1, 0, 0);
        task->mEndDate = test::localDate(2099, 1, 1, 0, 0);
        task->mDating = test::localDate(2024, 3, 5, 9, 0);
        task->serverPath = "\\Backup\\" + name;
        return task;
    }
    bool dueAt(const TaskPtr& task, Date now) {
        clock_->set(now);
        return manager_.nowDating(task);
    }

    test::TempHome home_;
    std::shared_ptr<ManualClock> clock_;
    CBackupManage manager_;
};

TEST_F(BackupManageDue, OnlyThisComputersFreeTasksAreDueByTheRulesAndQueuedOncePerName) {
    EXPECT_TRUE(manager_.nowDating(daily()));
    EXPECT_FALSE(manager_.nowDating(nullptr));
    for (auto unfree : std::vector<std::function<void(CBackupTask&)>>{
             [](auto& t) { t.pcID = 8; }, [](auto& t) { t.bMigrateTask = true; },
             [](auto& t) { t.bDeleting = true; }, [](auto& t) { t.serverPath.clear(); }}) {
        auto task = daily();
        unfree(*task);
        EXPECT_FALSE(manager_.nowDating(task));
    }

    auto working = daily();
    manager_.SetWorkingTask(working);
    EXPECT_FALSE(manager_.nowDating(working));
    EXPECT_TRUE(manager_.nowDating(daily())); // a twin by name is kept out by the queue
    manager_.SetWorkingTask(nullptr);

    manager_.bLogOff = true;
    EXPECT_FALSE(manager_.nowDating(daily()));
    manager_.bLogOff = false;

    const Date slot = test::localDate(2024, 3, 5, 9, 0);
    auto task = daily();
    EXPECT_FALSE(dueAt(task, test::localDate(2024, 3, 5, 9, 0, 40))); // still the slot's minute
    EXPECT_TRUE(dueAt(task, test::localDate(2024, 3, 5, 9, 1, 0)));
    EXPECT_FALSE(dueAt(task, test::localDate(2024, 3, 5, 8, 59, 0)));

    task->mLastRunDate = slot; // this slot has already run
    EXPECT_FALSE(dueAt(task, test::localDate(2024, 3, 5, 12, 0)));
    task->mLastRunDate = Date();

    task->mBackupDate = slot.addingTimeInterval(23 * 3600.0);
    EXPECT_FALSE(dueAt(task, slot.addingTimeInterval(23 * 3600.0 + 60)));
    task->mBackupDate = slot.addingTimeInterval(25 * 3600.0);
    EXPECT_TRUE(dueAt(task, slot.addingTimeInterval(25 * 3600.0 + 60)));
    task->mBackupDate = Date();

    task->mTaskState = CBackupTask::StateFailed;
    EXPECT_FALSE(dueAt(task, test::localDate(2024, 3, 5, 8, 30)));
    EXPECT_EQ(task->mTaskState, CBackupTask::StateFailed);
    EXPECT_TRUE(dueAt(task, test::localDate(2024, 3, 5, 9, 0, 30))); // from the slot's minute
    EXPECT_EQ(task->mTaskState, CBackupTask::StateIdle);

    task->mEndDate = test::localDate(2024, 3, 5, 10, 0);
    EXPECT_FALSE(dueAt(task, test::localDate(2024, 3, 5, 10, 1)));
    task->bResume = true; // a retry goes on whatever the schedule says
    task->mResumeDate = test::localDate(2024, 3, 5, 11, 0);
    EXPECT_FALSE(dueAt(task, test::localDate(2024, 3, 5, 10, 59)));
    task->taskType = CBackupTask::ScheduleNone;
    EXPECT_TRUE(dueAt(task, test::localDate(2024, 3, 5, 11, 0)));
    task->bResume = false;
    EXPECT_FALSE(dueAt(task, test::localDate(2024, 3, 5, 11, 0)));

    auto weekly = daily("Weekly"); // 5 March 2024 is a Tuesday
    weekly->taskType = CBackupTask::ScheduleWeekly;
    EXPECT_FALSE(dueAt(weekly, test::localDate(2024, 3, 6, 10, 0)));
    EXPECT_TRUE(dueAt(weekly, test::localDate(2024, 3, 12, 10, 0)));

    auto once = daily("Once");
    once->taskType = CBackupTask::ScheduleBetweenDates;
    EXPECT_TRUE(dueAt(once, test::localDate(2024, 3, 6, 10, 0)));
    once->mBackupDate = test::localDate(2024, 3, 5, 9, 30); // the range's run happened
    EXPECT_FALSE(dueAt(once, test::localDate(2024, 3, 8, 10, 0)));

    // A slot is due within its own minute, even at the day's end.
    auto late = daily("Late"); // Tuesdays at 23:59
    late->taskType = CBackupTask::ScheduleWeekly;
    late->mDating = test::localDate(2024, 3, 5, 23, 59);
    EXPECT_TRUE(dueAt(late, test::localDate(2024, 3, 5, 23, 59, 0).addingTimeInterval(0.25)));
    EXPECT_TRUE(dueAt(late, test::localDate(2024, 3, 5, 23, 59, 30).addingTimeInterval(0.5)));
    EXPECT_FALSE(dueAt(late, test::localDate(2024, 3, 5, 23, 58, 59).addingTimeInterval(0.5)));
    EXPECT_FALSE(dueAt(late, test::localDate(2024, 3, 6, 0, 0, 30))); // Wednesday
    EXPECT_TRUE(dueAt(daily(), test::localDate(2024, 3, 5, 9, 0, 40).addingTimeInterval(0.1)));

    // The waiting list keeps one entry per name.
    auto first = daily("Same");
    auto twin = daily("Same");
    EXPECT_TRUE(manager_.AddTaskToWaitList(first, false));
    EXPECT_FALSE(manager_.AddTaskToWaitList(twin, false));
    EXPECT_EQ(SystemLog::capturedCount("Find task from waiting list"), 1u);
    EXPECT_EQ(manager_.waitingList, std::vector<TaskPtr>{first});
    EXPECT_TRUE(manager_.findTaskFromWaitingList(twin));
    EXPECT_TRUE(manager_.RemoveTaskFromWaitlist(twin)); // by name
    EXPECT_EQ(manager_.getTopTaskFromWaitingList(), nullptr);
    EXPECT_EQ(twin->mTaskState, CBackupTask::StateIdle);

    // The running task may be queued for another run only on request.
    auto running = daily("Running");
    running->mTaskState = CBackupTask::StateRunning;
    manager_.SetWorkingTask(running);
    EXPECT_FALSE(manager_.AddTaskToWaitList(running, false));
    EXPECT_TRUE(manager_.AddTaskToWaitList(running, true));
    EXPECT_EQ(running->mTaskState, CBackupTask::StateRunning);
    EXPECT_EQ(manager_.getTopTaskFromWaitingList(), running);
}

} // namespace

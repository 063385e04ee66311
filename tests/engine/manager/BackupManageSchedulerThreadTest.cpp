// The scheduler against real runs one pass at a time through a gated clock; the manager's
// own bookkeeping (delegate events, identity, due test) without a session.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <future>
#include <set>
#include <thread>

#include "common/LocalDate.h"
#include "engine/manager/ManagerDoubles.h"
#include "platform/framework/PropertyList.h"
#include "platform/os/FileSystem.h"
#include "platform/os/Thread.h"

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

// While the host (the daemon) may not run, due and user-started tasks queue in order.
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

TaskPtr makeTask(const std::string& name) {
    auto task = std::make_shared<CBackupTask>();
    task->name = name;
    return task;
}

using HostCall = std::tuple<CBackupManage*, TaskPtr, int32_t>;

struct RecordingHost : StowlineBackupManageDelegate {
    explicit RecordingHost(bool answer) : answer(answer) {}
    bool StowlineBackupManageDelegateFun(CBackupManage* manager, const TaskPtr& task,
                                         int32_t type) override {
        calls.emplace_back(manager, task, type);
        return answer;
    }
    bool answer;
    std::vector<HostCall> calls;
};

class BackupManageDelegate : public ::testing::Test {
protected:
    void SetUp() override { SystemLog::startCapture(); }
    void TearDown() override { SystemLog::stopCapture(); }

    std::string productFolder() const {
        return home_.dataHome() + "/Cirrovault/Cirrovault Online Backup";
    }
    std::string identityFile() const { return productFolder() + "/PCInfo.dat"; }

    test::TempHome home_;
};
using BackupManageIdentity = BackupManageDelegate;

TEST_F(BackupManageDelegate, FinishClearsOnlyTheWorkingTaskAndHostHearsTheRestAndRefusalsOnlyLog) {
    CBackupManage manager;
    RecordingHost host(false);
    manager.SetDelegate(&host);
    auto task = makeTask("Docs");
    manager.SetWorkingTask(task);
    manager.StowlineDelegateFun(makeTask("Music"), finishedTaskDelegate);
    EXPECT_EQ(manager.pWorkingTask, task);
    EXPECT_TRUE(manager.errTaskList.empty());
    // Tasks are told apart by name: a reloaded copy of the working task ends it.
    auto copy = makeTask("Docs");
    copy->bHaveErr = true;
    manager.StowlineDelegateFun(copy, finishedTaskDelegate);
    EXPECT_EQ(manager.pWorkingTask, nullptr);
    EXPECT_EQ(manager.errTaskList, std::vector<TaskPtr>{copy});
    EXPECT_EQ(SystemLog::capturedCount("Set working task nil"), 2u);
    // A null task counts as working, so its end clears whatever runs.
    manager.SetWorkingTask(task);
    manager.StowlineDelegateFun(nullptr, finishedTaskDelegate);
    EXPECT_EQ(manager.pWorkingTask, nullptr);
    EXPECT_TRUE(host.calls.empty());

    manager.SetWorkingTask(task);
    auto sendAll = [&] {
        SystemLog::startCapture();
        for (int32_t type : {0, 1, 2, 3, 4, 5, 6, 7, 42, -1})
            EXPECT_TRUE(manager.StowlineDelegateFun(task, static_cast<StowlineDelegateType>(type)));
    };
    sendAll();
    EXPECT_EQ(host.calls, (std::vector<HostCall>{{&manager, task, 1}, {&manager, task, 2},
                                                 {&manager, task, 4}, {&manager, task, 5}}));
    EXPECT_EQ(SystemLog::capturedCount(
                  "Error: beginUploadTaskDelegate or endUploadTaskDelegate manage delegate."),
              2u);
    EXPECT_EQ(SystemLog::capturedCount("Error: refreshProgressBarDelegate manage delegate."), 1u);
    EXPECT_EQ(SystemLog::capturedCount("Error: closeProgressBarViewDelegate Delegate."), 1u);
    EXPECT_EQ(manager.pWorkingTask, nullptr); // the end of the run is still recorded

    host.answer = true;
    for (auto* delegate : {&host, static_cast<RecordingHost*>(nullptr)}) {
        manager.SetDelegate(delegate);
        sendAll();
        EXPECT_FALSE(SystemLog::capturedContains("Error"));
    }
}

// Runs end on their own threads while the scheduler and the host ask for the working
// task: every question and change of it goes through the manager's lock.
TEST_F(BackupManageDelegate, FinishEventsMeetWorkingTaskQueriesFromOtherThreads) {
    CBackupManage manager;
    std::vector<TaskPtr> tasks;
    std::vector<std::unique_ptr<Thread>> threads;
    for (int i = 0; i < 4; ++i) {
        TaskPtr task = tasks.emplace_back(makeTask("T" + std::to_string(i)));
        task->bHaveErr = (i % 2 == 0);
        threads.push_back(std::make_unique<Thread>([&manager, task] {
            for (int n = 0; n < 300; ++n)
                manager.StowlineDelegateFun(task, finishedTaskDelegate);
        }));
    }
    threads.push_back(std::make_unique<Thread>([&] {
        for (int n = 0; n < 1200; ++n) {
            manager.SetWorkingTask(tasks[n % 4]);
            manager.isWorkingTask(tasks[(n + 1) % 4]);
            manager.getTasksList();
        }
    }));
    for (auto& thread : threads)
        thread->start();
    for (auto& thread : threads)
        thread->join();

    std::multiset<std::string> names;
    for (const auto& task : manager.errTaskList)
        names.insert(task->name);
    EXPECT_EQ(names, (std::multiset<std::string>{"T0", "T2"}));
}

TEST_F(BackupManageIdentity, MadeOnceThenReadBackUnchangedAndDamagedFileComesBackFromItsCopy) {
    CBackupManage first;
    first.initMyID();
    EXPECT_TRUE(SystemLog::capturedContains("No error saving pcINFO data."));
    EXPECT_EQ(first.identityProblem, "");
    auto bytes = FileSystem::readFile(identityFile());
    ASSERT_TRUE(bytes);

    auto plist = PropertyList::parse(*bytes);
    // The identifier is a decimal text, not a number node.
    EXPECT_EQ(plist, PropertyList(PlistDict{{"PC ID", PropertyList(std::to_string(first.pcID))},
                                            {"PC Name", PropertyList(first.pcName)}}));

    // Later starts read the same identity and never rewrite the file.
    for (int i = 0; i < 2; ++i) {
        CBackupManage later;
        later.initMyID();
        EXPECT_EQ(std::tie(later.pcID, later.pcName), std::tie(first.pcID, first.pcName));
    }
    EXPECT_EQ(FileSystem::readFile(identityFile()), bytes);
    EXPECT_EQ(SystemLog::capturedCount("No error creating initMyID."), 2u);

    // Another property-list reader takes the file as it is.
    if (FileSystem::exists("/usr/bin/plistutil")) {
        std::string binary = home_.file("pcinfo.bin");
        std::string command = "/usr/bin/plistutil -i '" + identityFile() + "' -o '" + binary +
                              "' -f bin >/dev/null 2>&1";
        ASSERT_EQ(std::system(command.c_str()), 0);
        EXPECT_EQ(PropertyList::parse(FileSystem::readFile(binary).value_or("")), plist);
    }

    ASSERT_TRUE(FileSystem::writeFileAtomically(identityFile(), "<plist><dict><key>PC"));
    CBackupManage restored;
    restored.initMyID();
    EXPECT_EQ(restored.pcID, first.pcID);
    EXPECT_EQ(restored.identityProblem, "");
    EXPECT_EQ(FileSystem::readFile(identityFile()), bytes);
    EXPECT_EQ(FileSystem::readFile(identityFile() + ".damaged"), "<plist><dict><key>PC");

    ASSERT_TRUE(FileSystem::removeItem(identityFile())); // a lost file too
    CBackupManage lost;
    lost.initMyID();
    EXPECT_EQ(lost.pcID, first.pcID);

    ASSERT_TRUE(FileSystem::writeFileAtomically(identityFile(), "x"));
    ASSERT_TRUE(FileSystem::writeFileAtomically(productFolder() + "/PCInfo.copy", "y"));
    CBackupManage neither;
    neither.initMyID();
    EXPECT_EQ(neither.pcID, 0u);
    EXPECT_NE(neither.identityProblem.find("task migrate"), std::string::npos);
    EXPECT_EQ(FileSystem::readFile(identityFile()), "x");
}

TEST_F(BackupManageIdentity, FileWithoutAGoodIdentityIsReadAsItIsAndLeftAlone) {
    auto plist = [](PlistDict dict) { return PropertyList(std::move(dict)).toXml(); };
    std::string valid = plist({{"PC ID", PropertyList("77")}, {"PC Name", PropertyList("desk")}});
    // The file's content, then the identity and whether the file reads as damaged.
    const std::tuple<std::string, uint64_t, std::string, bool> cases[] = {
        // A damaged file or one without the keys leaves the identity as it was.
        {"", 0, "before", true},
        {valid.substr(0, valid.size() / 2), 0, "before", true},
        {PropertyList(PlistArray{PropertyList("77")}).toXml(), 0, "before", true},
        {plist({}), 0, "before", false}, // no identity, but nothing wrong with the file
        // Numbers are read like a C int: leading digits, else 0.
        {plist({{"PC ID", PropertyList(" 42abc")}, {"PC Name", PropertyList("desk")}}), 42, "desk", false},
        {plist({{"PC ID", PropertyList("desk")}}), 0, "", false}, // the name read as missing
    };
    ASSERT_TRUE(FileSystem::createDirectories(productFolder()));
    for (const auto& [content, id, name, damaged] : cases) {
        SCOPED_TRACE(content);
        ASSERT_TRUE(FileSystem::writeFileAtomically(identityFile(), content));
        SystemLog::startCapture();
        CBackupManage manager;
        manager.pcName = "before";
        manager.initMyID();
        EXPECT_EQ(std::tie(manager.pcID, manager.pcName), std::tie(id, name));
        EXPECT_EQ(SystemLog::capturedContains("Error: PCInfo.dat holds no identity"), damaged);
        EXPECT_EQ(SystemLog::capturedContains("Error"), damaged);
        EXPECT_EQ(FileSystem::readFile(identityFile()), content);
    }
}

// ---- The due test and the waiting list, without the thread ----

class BackupManageDue : public BackupManageDelegate {
protected:
    void SetUp() override {
        BackupManageDelegate::SetUp();
        clock_ = std::make_shared<ManualClock>(test::localDate(2024, 3, 5, 9, 1, 10));
        Clock::setShared(clock_);
        manager_.pcID = kPc;
    }
    void TearDown() override {
        Clock::setShared(nullptr);
        BackupManageDelegate::TearDown();
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

// Logon with its retries, and loading and reloading the task list, on a real local store.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>

#include "common/EngineLoopDialog.h"
#include "common/LocalDate.h"
#include "engine/manager/ManagerDoubles.h"
#include "platform/framework/LoadString.h"
#include "service/CManageTaskList.h"

using namespace cirrovault;
using test::localDate;

namespace {

using TaskPtr = std::shared_ptr<CBackupTask>;
using Op = FaultInjectingStore::Operation;

// Records what the worker shows, and presses a button once a given text is shown.
class ScriptedLoop : public test::LoopDialogStub {
public:
    ScriptedLoop(test::HostRecorder& events, std::string when, bool cancel)
        : events_(events), when_(std::move(when)), cancelPress_(cancel) {}
    bool EnterLoopMode(Thread* thread, int32_t buttonType) override {
        events_.add("type " + std::to_string(buttonType));
        return LoopDialogStub::EnterLoopMode(thread, buttonType);
    }
    bool LeaveLoopMode(Thread* thread) override {
        events_.add("leave");
        return LoopDialogStub::LeaveLoopMode(thread);
    }
    bool IsLoopCancel(Thread*) override { return cancel_; }
    bool IsLoopRetry(Thread*) override { return retry_; }
    void SetRetry(Thread*, bool retryValue) override {
        events_.add(retryValue ? "retry set" : "retry cleared");
        retry_ = retryValue;
    }
    void SetLoopType(Thread*, int32_t loopType) override {
        events_.add("type " + std::to_string(loopType));
    }
    bool SetLoopMessage(Thread*, const std::string& strMsg) override {
        events_.add(strMsg);
        std::lock_guard lock(mutex_);
        if (!when_.empty() && strMsg.find(when_) != std::string::npos) {
            (cancelPress_ ? cancel_ : retry_) = true;
            when_.clear();
        }
        return true;
    }

private:
    test::HostRecorder& events_;
    std::mutex mutex_;
    std::string when_; // guarded by mutex_
    const bool cancelPress_;
    std::atomic<bool> cancel_{false}, retry_{false};
};

std::string text(const char* key) {
    return LoadString::GetValueByKey(key, "");
}
std::string countDown(int seconds) {
    return LoadString::Format("IDS_STRFAILCONTRYTIME", 4,
                              " " + LoadString::Format("IDS_STRSECONDS", seconds));
}
// What the dialog shows and the worker pauses through three failed attempts, and the
// count-down after them down to seconds left.
std::vector<std::string> attemptsAndCountDownTo(int seconds) {
    std::vector<std::string> events{
        "type 7", text("IDS_SINGING"), "sleep 0", text("IDS_STRFAILCONTRY"),
        "sleep 1", text("IDS_STRFAILCONTRY2"), "sleep 1", "sleep 1", "sleep 1",
        text("IDS_STRFAILCONTRY3"), "type 3",
        LoadString::Format("IDS_STRFAILCONTRYTIME", 4, LoadString::Format("IDS_STRMINUTES", 1))};
    for (int left = 59; left >= seconds; --left)
        events.insert(events.end(), {"sleep 1", countDown(left)});
    return events;
}

class BackupManageLogonThread : public test::ManagerSession {
protected:
    void SetUp() override {
        ManagerSession::SetUp();
        Clock::setShared(clock_);
        CLoopItem::setFactory(nullptr);
        api().Logoff();
    }
    void TearDown() override {
        CLoopItem::setFactory(nullptr);
        ManagerSession::TearDown();
    }

    void useDialog(const std::string& pressWhen = "", bool cancel = false) {
        auto dialog = std::make_shared<ScriptedLoop>(events_, pressWhen, cancel);
        CLoopItem::setFactory([dialog] { return dialog; });
    }

    // A task of the account registered on the service's task list.
    TaskPtr registerTask(const std::string& name, uint64_t pcID) {
        auto task = std::make_shared<CBackupTask>();
        task->name = name;
        task->pcID = pcID;
        task->serverPath = "\\Backups\\" + name;
        task->mBackupDate = localDate(2024, 3, 5, 14, 30, 15);
        task->localDirList = {makeFile(name + "/a.txt", "a")};
        EXPECT_TRUE(task->uploadTaskList("Add", name));
        return task;
    }
    std::vector<std::string> names(const std::vector<TaskPtr>& tasks) {
        std::vector<std::string> out;
        for (const auto& task : tasks)
            out.push_back(task->name);
        return out;
    }

    test::HostRecorder events_; // what the dialog showed and when the workers paused
    std::shared_ptr<test::GatedClock> clock_ = std::make_shared<test::GatedClock>(
        Date(1'700'000'000.0), [this](double s) { events_.add(fmt::format("sleep {}", s)); });
};

TEST_F(BackupManageLogonThread, ThreeAttemptsThenCountDownUntilCancel) {
    store_->failOperation(Op::Logon, ResultCode::Failure);
    useDialog(countDown(57), /*cancel=*/true);

    EXPECT_EQ(manager_.Mylogon("alice", "secret"), 6);
    EXPECT_TRUE(manager_.bCancelLogon);
    EXPECT_TRUE(manager_.pLogonThread == nullptr && manager_.loopItem == nullptr);
    EXPECT_EQ(SystemLog::capturedCount("Log on ret: 3"), 1u);
    std::vector<std::string> expected = attemptsAndCountDownTo(57);
    expected.push_back("leave");
    EXPECT_EQ(events_.events(), expected);
}

TEST_F(BackupManageLogonThread, RetryMakesThreeNewAttemptsAndALaterSuccessLogsOn) {
    // The first logon and three attempts fail; after Retry two more fail, the third works.
    store_->failOperation(Op::Logon, ResultCode::Failure, 6);
    useDialog(countDown(58), /*cancel=*/false);
    manager_.bLogOff = true;

    EXPECT_EQ(manager_.Mylogon("alice", "secret"), 0);
    EXPECT_FALSE(manager_.bLogOff || api().sessionID().empty());
    std::vector<std::string> expected = attemptsAndCountDownTo(58);
    std::vector<std::string> again = attemptsAndCountDownTo(60);
    expected.insert(expected.end(), {text("IDS_SINGING"), "type 7", "retry cleared"});
    expected.insert(expected.end(), again.begin() + 2, again.end() - 2); // the attempts only
    expected.insert(expected.end(), {"type 7", text("IDS_STRINITLISTAFTERLOGON"),
                                     text("IDS_GETTINGTASK"), "leave"});
    EXPECT_EQ(events_.events(), expected);
    // The account has no tasks yet: an empty reply, which loads nothing.
    EXPECT_EQ(SystemLog::capturedCount("Failed to load task list"), 1u);
}


TEST_F(BackupManageLogonThread, UnansweredLogonLoadsTheServiceListOrReportsFailure) {
    // Nobody could end a count-down: three attempts, then the failure goes to the host.
    store_->failOperation(Op::Logon, ResultCode::Failure);
    EXPECT_EQ(manager_.Mylogon("alice", "secret"), 3);
    EXPECT_EQ(events_.events(),
              (std::vector<std::string>{"sleep 0", "sleep 1", "sleep 1", "sleep 1", "sleep 1"}));
    EXPECT_TRUE(api().sessionID().empty());

    // Nor could anybody answer a script's dialog: shown, but without the count-down.
    useDialog();
    manager_.bUnattended = true;
    EXPECT_EQ(manager_.Mylogon("alice", "secret"), 3);
    EXPECT_FALSE(manager_.bCancelLogon);
    std::vector<std::string> events = events_.events();
    EXPECT_EQ(std::count(events.begin(), events.end(), "type 3"), 0);
    EXPECT_EQ(events.back(), "leave");
    EXPECT_EQ(std::count(events.begin(), events.end(), text("IDS_STRFAILCONTRY3")), 1);
    CLoopItem::setFactory(nullptr);
    manager_.bUnattended = false;

    // Other failures are passed through unchanged.
    store_->failOperation(Op::Logon, ResultCode::WrongPassword);
    EXPECT_EQ(manager_.Mylogon("alice", "secret"), ResultCode::WrongPassword);
    store_->clearFaults();

    // A task list that cannot be read still leaves a good logon, with no tasks.
    ASSERT_EQ(api().Logon("alice", "secret"), ResultCode::Success);
    manager_.initMyID();
    registerTask("Docs", manager_.pcID);
    registerTask("Elsewhere", manager_.pcID + 1);
    api().Logoff();
    store_->failOperation(Op::ReadTaskList, ResultCode::Failure, 1);
    EXPECT_EQ(manager_.Mylogon("alice", "secret"), 0);
    EXPECT_TRUE(manager_.taskList.empty());
    EXPECT_EQ(SystemLog::capturedCount("Error: get task list."), 1u);

    EXPECT_EQ(manager_.Mylogon("alice", "secret"), 0);
    EXPECT_EQ(names(manager_.taskList), (std::vector<std::string>{"Docs", "Elsewhere"}));
    EXPECT_TRUE(manager_.taskList[1]->bMigrateTask && !manager_.taskList[0]->bMigrateTask);
}

// A reload (another process changed the list) takes the service's records but keeps what
// only this process knows: a task that ran this slot must not run again, nor a failed one
// look clean. A run under way defers it.
TEST_F(BackupManageLogonThread, RefreshFollowsTheServiceAndReloadKeepsStateLastRunAndErrors) {
    ASSERT_EQ(api().Logon("alice", "secret"), ResultCode::Success);
    TaskPtr a = registerTask("A", 7);
    // Every column is read back as it was sent: all type bits, lists, big numbers, dates.
    a->description = "my photos";
    a->mPCName = "desk";
    a->taskType = 17;
    a->filterExt = {"*.tmp", "*.bak"};
    a->filtedPath = {"/home/a/cache"};
    a->uiMaxVersion = 12345678901;
    a->bResume = true;
    a->serverPath = "\\" + text("EncryptionFolder") + "\\A"; // read back as encrypted
    a->bEncryMode = true;
    const std::vector<Date> dates{localDate(2024, 3, 12, 9, 0), localDate(2024, 1, 1, 0, 0),
                                  localDate(2099, 1, 1, 0, 0), localDate(2024, 3, 5, 16, 30, 15)};
    std::tie(a->mDating, a->mBeginDate, a->mEndDate, a->mResumeDate) =
        std::tie(dates[0], dates[1], dates[2], dates[3]);
    ASSERT_TRUE(a->uploadTaskList("Edit", "A"));
    TaskPtr b = registerTask("B", 7);
    registerTask("C", 7);
    CManageTaskList client;
    ASSERT_TRUE(manager_.LoadTaskList(client.getBackupTasks("", "false")));
    TaskPtr loadedA = manager_.GetTaskByName("A");
    a->taskID = loadedA->taskID;
    EXPECT_EQ(test::recordOf(*loadedA), test::recordOf(*a));
    EXPECT_EQ((std::vector<Date>{loadedA->mDating, loadedA->mBeginDate, loadedA->mEndDate,
                                 loadedA->mResumeDate, loadedA->mBackupDate}),
              (std::vector<Date>{dates[0], dates[1], dates[2], dates[3], a->mBackupDate}));
    TaskPtr loadedB = manager_.GetTaskByName("B");
    loadedB->mTaskState = CBackupTask::StateWaiting;
    manager_.waitingList = {loadedB};

    // On the service: B has run since, C was deleted, D is new.
    b->mBackupDate = b->mBackupDate.addingTimeInterval(3600);
    ASSERT_TRUE(b->uploadTaskList("Edit", "B"));
    ASSERT_EQ(CManageTaskList().deleteTasks("C"), ResultCode::Success);
    registerTask("D", 7);

    EXPECT_TRUE(manager_.refreshTaskList());
    EXPECT_TRUE(manager_.bRefreshTaskListFlag); // the host clears it
    EXPECT_TRUE(manager_.waitingList.empty());
    EXPECT_EQ(loadedB->mTaskState, CBackupTask::StateIdle);
    std::vector<std::string> after = names(manager_.taskList);
    std::sort(after.begin(), after.end());
    EXPECT_EQ(after, (std::vector<std::string>{"A", "B", "D"}));
    EXPECT_EQ(manager_.GetTaskByName("A"), loadedA);
    TaskPtr oldB = manager_.GetTaskByName("B");
    EXPECT_NE(oldB, loadedB);
    EXPECT_EQ(oldB->mBackupDate, b->mBackupDate);
    EXPECT_EQ(SystemLog::capturedCount("refresh task for stop tasks."), 1u);

    // Nothing changed since: no change reported, the same objects stay.
    EXPECT_FALSE(manager_.refreshTaskList());
    EXPECT_EQ(manager_.GetTaskByName("B"), oldB);

    loadedA->mLastRunDate = Date(1'700'000'000.0);
    loadedA->bHaveErr = true;
    oldB->setTaskState(CBackupTask::StateWaiting);
    manager_.waitingList = {oldB};
    b->description = "edited elsewhere";
    ASSERT_TRUE(b->uploadTaskList("Edit", "B"));
    manager_.SetWorkingTask(loadedA);
    EXPECT_FALSE(manager_.reloadTaskList());
    manager_.SetWorkingTask(nullptr);
    ASSERT_TRUE(manager_.reloadTaskList());
    TaskPtr newA = manager_.GetTaskByName("A"), newB = manager_.GetTaskByName("B");
    ASSERT_TRUE(newA && newB && newA != loadedA && newB != oldB);
    EXPECT_EQ(std::tuple(newA->mLastRunDate, newA->bHaveErr.load(), newB->description, newB->mTaskState.load()),
              std::tuple(Date(1'700'000'000.0), true, std::string("edited elsewhere"),
                         int{CBackupTask::StateWaiting}));
    EXPECT_EQ(manager_.waitingList, std::vector<TaskPtr>{newB});

    // The service's list cannot be read: nothing changes.
    store_->failOperation(Op::ReadTaskList, ResultCode::Failure);
    EXPECT_FALSE(manager_.refreshTaskList());
    EXPECT_EQ(manager_.taskList.size(), 3u);
    EXPECT_FALSE(manager_.refreshTaskListForRemoteDeleteTask());
    EXPECT_TRUE(
        SystemLog::capturedContains("Error:refreshTaskListForRemoteDeleteTask. Get result: "));
}

} // namespace

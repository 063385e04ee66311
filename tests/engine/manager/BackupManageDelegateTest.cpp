#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include "common/TempHome.h"
#include "engine/manager/CBackupManage.h"
#include "platform/framework/PasswordMan.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"
#include "platform/os/Thread.h"

using namespace cirrovault;

namespace {

using TaskPtr = std::shared_ptr<CBackupTask>;

TaskPtr makeTask(const std::string& name) {
    auto task = std::make_shared<CBackupTask>();
    task->name = name;
    return task;
}

struct HostCall {
    CBackupManage* manager;
    TaskPtr task;
    int32_t type;
};

class RecordingHost : public StowlineBackupManageDelegate {
public:
    explicit RecordingHost(bool answer) : answer_(answer) {}
    bool StowlineBackupManageDelegateFun(CBackupManage* manager, const TaskPtr& taskInfo,
                                         int32_t delegateType) override {
        std::lock_guard lock(mutex_);
        calls_.push_back({manager, taskInfo, delegateType});
        return answer_;
    }
    std::vector<HostCall> calls() {
        std::lock_guard lock(mutex_);
        return calls_;
    }

private:
    bool answer_;
    std::mutex mutex_;
    std::vector<HostCall> calls_; // guarded by mutex_
};

class BackupManageDelegate : public ::testing::Test {
protected:
    void SetUp() override { SystemLog::startCapture(); }
    void TearDown() override { SystemLog::stopCapture(); }
    test::TempHome home_;
};

const char* const kBeginEndNo =
    "Error: beginUploadTaskDelegate or endUploadTaskDelegate manage delegate.";

} // namespace

TEST_F(BackupManageDelegate, HostSeesBeginEndProgressAndClose) {
    CBackupManage manager;
    RecordingHost host(true);
    manager.SetDelegate(&host);
    auto task = makeTask("Docs");
    for (int32_t type : {0, 1, 2, 3, 4, 5, 6, 7, 42, -1})
        EXPECT_TRUE(manager.StowlineDelegateFun(task, static_cast<StowlineDelegateType>(type)));

    auto calls = host.calls();
    ASSERT_EQ(calls.size(), 4u);
    const int32_t forwarded[] = {1, 2, 4, 5};
    for (size_t i = 0; i < calls.size(); ++i) {
        EXPECT_EQ(calls[i].type, forwarded[i]);
        EXPECT_EQ(calls[i].manager, &manager);
        EXPECT_EQ(calls[i].task, task);
    }
    EXPECT_EQ(SystemLog::capturedCount("beginUploadTaskDelegate"), 2u);
    EXPECT_FALSE(SystemLog::capturedContains("Error"));
}

TEST_F(BackupManageDelegate, RefusingOrMissingHostOnlyLogs) {
    CBackupManage manager;
    RecordingHost host(false);
    manager.SetDelegate(&host);
    auto task = makeTask("Docs");
    manager.SetWorkingTask(task);
    for (auto type : {beginUploadTaskDelegate, refreshProgressBarDelegate,
                      closeProgressBarViewDelegate, finishedTaskDelegate, endUploadTaskDelegate})
        EXPECT_TRUE(manager.StowlineDelegateFun(task, type));
    EXPECT_EQ(host.calls().size(), 4u);
    EXPECT_EQ(SystemLog::capturedCount(kBeginEndNo), 2u);
    EXPECT_EQ(SystemLog::capturedCount("Error: refreshProgressBarDelegate manage delegate."), 1u);
    EXPECT_EQ(SystemLog::capturedCount("Error: closeProgressBarViewDelegate Delegate."), 1u);
    EXPECT_EQ(manager.pWorkingTask, nullptr); // the end of the run is still recorded

    SystemLog::startCapture();
    manager.SetDelegate(nullptr);
    for (auto type : {beginUploadTaskDelegate, refreshProgressBarDelegate,
                      closeProgressBarViewDelegate, endUploadTaskDelegate})
        EXPECT_TRUE(manager.StowlineDelegateFun(task, type));
    EXPECT_FALSE(SystemLog::capturedContains("Error"));
}

TEST_F(BackupManageDelegate, FinishedEventClearsOnlyTheWorkingTask) {
    CBackupManage manager;
    auto working = makeTask("Docs");
    manager.SetWorkingTask(working);

    manager.StowlineDelegateFun(makeTask("Music"), finishedTaskDelegate);
    EXPECT_EQ(manager.pWorkingTask, working);
    EXPECT_TRUE(manager.errTaskList.empty());

    // Tasks are told apart by name: a reloaded copy of the working task ends it.
    auto copy = makeTask("Docs");
    copy->bHaveErr = true;
    manager.StowlineDelegateFun(copy, finishedTaskDelegate);
    EXPECT_EQ(manager.pWorkingTask, nullptr);
    ASSERT_EQ(manager.errTaskList.size(), 1u);
    EXPECT_EQ(manager.errTaskList[0], copy);
    EXPECT_EQ(SystemLog::capturedCount("Set working task nil"), 2u);

    // A null task counts as working, so its end clears whatever runs.
    manager.SetWorkingTask(working);
    manager.StowlineDelegateFun(nullptr, finishedTaskDelegate);
    EXPECT_EQ(manager.pWorkingTask, nullptr);
}

TEST_F(BackupManageDelegate, WorkingTaskAndErrorListCompareNames) {
    CBackupManage manager;
    auto docs = makeTask("Docs");
    EXPECT_TRUE(manager.isWorkingTask(nullptr));
    EXPECT_FALSE(manager.isWorkingTask(docs));
    manager.SetWorkingTask(docs);
    EXPECT_TRUE(manager.isWorkingTask(makeTask("Docs")));
    EXPECT_FALSE(manager.isWorkingTask(makeTask("docs")));
    EXPECT_TRUE(manager.isWorkingTask(nullptr));

    manager.AddErrTask(docs);
    manager.AddErrTask(makeTask("Docs"));
    manager.AddErrTask(makeTask("Music"));
    ASSERT_EQ(manager.errTaskList.size(), 2u);
    EXPECT_EQ(manager.errTaskList[0], docs);
    manager.AddErrTask(nullptr);
    EXPECT_EQ(SystemLog::capturedCount("Error:CBackupManage:AddErrTask()"), 1u);
    EXPECT_EQ(manager.errTaskList.size(), 2u);
}

TEST_F(BackupManageDelegate, TaskUnderCreation) {
    CBackupManage manager;
    // Nothing under creation: neutral answers.
    EXPECT_FALSE(manager.IsCreateingTask());
    EXPECT_EQ(manager.getCreateNewTaskName(), "");
    EXPECT_EQ(manager.GetType(), 0);
    EXPECT_TRUE(manager.InitLocalFolderlist({"/a"}));
    EXPECT_FALSE(manager.hasLocalFolderSel());

    manager.pNewTask = makeTask("Daily");
    manager.pNewTask->AddSrcPath("/old");
    EXPECT_TRUE(manager.InitLocalFolderlist({"/home/u/a", "/home/u/b"}));
    EXPECT_TRUE(manager.hasLocalFolderSel());
    EXPECT_EQ(manager.pNewTask->localDirList.size(), 2u);
    EXPECT_EQ(manager.pNewTask->GetFirstSrcPath(), "/home/u/a"); // plain paths
    manager.setTaskSvrDataFodler("\\Data");
    EXPECT_EQ(manager.pNewTask->serverPath, "\\Data\\Daily");

    // Without a pass phrase or a folder nothing is kept.
    manager.SaveEncryKey("", "\\Encrypted");
    manager.SaveEncryKey("secret", "");
    EXPECT_FALSE(FileSystem::exists(PasswordMan::PasswordFilePath()));
}

// Runs end on their own threads while the scheduler and the host ask for the working
// task: every question and change of it goes through the manager's lock.
TEST(BackupManageConcurrency, FinishEventsMeetWorkingTaskQueries) {
    test::TempHome home;
    SystemLog::startCapture();
    CBackupManage manager;
    std::vector<TaskPtr> tasks;
    for (int i = 0; i < 4; ++i) {
        tasks.push_back(makeTask("T" + std::to_string(i)));
        tasks.back()->bHaveErr = (i % 2 == 0);
    }

    std::vector<std::unique_ptr<Thread>> senders;
    for (const auto& task : tasks) {
        senders.push_back(std::make_unique<Thread>([&manager, task] {
            for (int n = 0; n < 300; ++n)
                manager.StowlineDelegateFun(task, finishedTaskDelegate);
        }));
    }
    Thread asker([&] {
        for (int n = 0; n < 1200; ++n) {
            manager.SetWorkingTask(tasks[n % 4]);
            manager.isWorkingTask(tasks[(n + 1) % 4]);
            manager.getTasksList();
        }
    });
    for (auto& sender : senders)
        sender->start();
    asker.start();
    for (auto& sender : senders)
        sender->join();
    asker.join();
    SystemLog::stopCapture();

    std::set<std::string> names;
    for (const auto& task : manager.errTaskList)
        names.insert(task->name);
    EXPECT_EQ(manager.errTaskList.size(), 2u);
    EXPECT_EQ(names, (std::set<std::string>{"T0", "T2"}));
}

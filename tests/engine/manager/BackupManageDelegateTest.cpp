#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <tuple>
#include <vector>

#include "common/TempHome.h"
#include "engine/manager/CBackupManage.h"
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
    test::TempHome home_;
};

} // namespace

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

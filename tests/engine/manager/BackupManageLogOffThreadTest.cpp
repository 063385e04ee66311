// Logging off while a run is closing: the run may already be past its test of the log-off
// flag and on its way to the manager's lock, so the log-off must not hold that lock while
// it waits for the run.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include "common/EngineSession.h"
#include "engine/manager/CBackupManage.h"
#include "platform/framework/ProgressModeHost.h"

using namespace cirrovault;

namespace {

// Holds the run in its closing notice to the host until released.
struct ClosingHost : StowlineBackupManageDelegate {
    bool StowlineBackupManageDelegateFun(CBackupManage*, const std::shared_ptr<CBackupTask>&,
                                         int32_t type) override {
        if (type == closeProgressBarViewDelegate) {
            closing.set_value();
            released.wait_for(std::chrono::seconds(20));
        }
        return true;
    }
    std::promise<void> closing, release;
    std::future<void> closed = closing.get_future();
    std::shared_future<void> released = release.get_future().share();
};

class BackupManageLogOffThread : public test::EngineSession {};

TEST_F(BackupManageLogOffThread, LogOffWhileARunIsClosingEndsIt) {
    ProgressModeHost::setProvider(nullptr);
    makeFile("src/a.txt", "alpha");
    auto task = std::make_shared<CBackupTask>();
    task->name = "Closing";
    task->serverPath = "\\Backups\\Closing";
    task->localDirList = {home_.file("src")};
    task->pcID = 7; // of this computer, not due: the user starts it
    task->taskType = CBackupTask::ScheduleDaily;
    task->mDating = Date::now().addingTimeInterval(86400 * 30);
    ClosingHost host;
    CBackupManage manager;
    manager.pcID = 7;
    manager.SetDelegate(&host);
    ASSERT_TRUE(manager.AddTask(task));
    ASSERT_TRUE(manager.StartBackupByUser(task->name, false));
    ASSERT_EQ(host.closed.wait_for(std::chrono::seconds(20)), std::future_status::ready);

    manager.bLogOff = true;
    auto ended = std::async(std::launch::async, [&] { return manager.endBackpTask(); });
    // Let the log-off reach its wait for the run before the run goes on to the lock.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    host.release.set_value();
    ASSERT_EQ(ended.wait_for(std::chrono::seconds(20)), std::future_status::ready)
        << "the log-off and the closing run wait for each other";
    EXPECT_EQ(manager.pWorkingTask, nullptr);
    EXPECT_EQ(task->mTaskState, CBackupTask::StateSucceeded);
    EXPECT_FALSE(task->bLogOff);
}

} // namespace

// Logging off while a run is closing: the run may already be past its test of the log-off
// flag and on its way to the manager's lock, so the log-off must not hold that lock while
// it waits for the run.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include "engine/manager/ManagerDoubles.h"

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

class BackupManageLogOffThread : public test::ManagerSession {
protected:
    ClosingHost closing_;
};

TEST_F(BackupManageLogOffThread, LogOffWhileARunIsClosingEndsIt) {
    auto task = makeTask("Closing", Date::now().addingTimeInterval(86400 * 30)); // not due
    manager_.SetDelegate(&closing_);
    ASSERT_TRUE(manager_.AddTask(task));
    ASSERT_TRUE(manager_.StartBackupByUser(task->name, false));
    ASSERT_EQ(closing_.closed.wait_for(std::chrono::seconds(20)), std::future_status::ready);

    manager_.bLogOff = true;
    auto ended = std::async(std::launch::async, [&] { return manager_.endBackpTask(); });
    // Let the log-off reach its wait for the run before the run goes on to the lock.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    closing_.release.set_value();
    ASSERT_EQ(ended.wait_for(std::chrono::seconds(20)), std::future_status::ready)
        << "the log-off and the closing run wait for each other";
    EXPECT_EQ(manager_.pWorkingTask, nullptr);
    EXPECT_EQ(task->mTaskState, CBackupTask::StateSucceeded);
    EXPECT_FALSE(task->bLogOff);
}

} // namespace

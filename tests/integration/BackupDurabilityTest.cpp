// A run is done only when the store has made what it sent durable: a store that cannot
// sync fails the run, the next run makes it durable, and a run that stored nothing asks
// for nothing.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>

#include "common/EngineSession.h"

using namespace cirrovault;

namespace {

constexpr double T = 1'650'000'000.0;

class FlushCountingStore : public test::CountingStore {
public:
    using CountingStore::CountingStore;
    int64_t flush() override {
        ++flushes;
        return CountingStore::flush();
    }
    std::atomic<int> flushes{0};
};

class BackupDurabilityTest : public test::EngineSession {
protected:
    void SetUp() override {
        EngineSession::SetUp();
        store_ = counting_ = std::make_shared<FlushCountingStore>(local_);
        api().SetBackend(counting_); // the same session goes on through the wrapper
        Clock::setShared(clock_);
        task_->name = "Projects";
        task_->serverPath = "\\Backups\\Projects";
        task_->localDirList = {home_.file("work")};
    }
    // One run; the flushes it asked for.
    int run() {
        const int before = counting_->flushes;
        runToEnd(*task_);
        clock_->advance(3600);
        return counting_->flushes - before;
    }
    size_t finishedEvents() { return eventsContaining("Backup finished successfully."); }

    std::shared_ptr<FlushCountingStore> counting_;
    std::shared_ptr<ManualClock> clock_ = std::make_shared<ManualClock>(Date(T));
    std::shared_ptr<CBackupTask> task_ = std::make_shared<CBackupTask>();
};

TEST_F(BackupDurabilityTest, ARunIsDoneOnlyOnceTheStoreMadeItDurable) {
    makeFile("work/a.txt", "first", T - 600);
    counting_->failOperation(FaultInjectingStore::Operation::Flush, ResultCode::Failure, 1);
    EXPECT_EQ(run(), 1);
    EXPECT_EQ(task_->mTaskState, CBackupTask::StateFailed);
    EXPECT_EQ(finishedEvents(), 0u);

    // Nothing new to send, but what the last run stored is still to be made durable.
    EXPECT_EQ(run(), 1);
    EXPECT_EQ(task_->mTaskState, CBackupTask::StateSucceeded);
    EXPECT_EQ(finishedEvents(), 1u);

    EXPECT_EQ(run(), 0); // nothing stored, nothing to sync
    EXPECT_EQ(task_->mTaskState, CBackupTask::StateSucceeded);

    makeFile("work/a.txt", "second", T - 60);
    EXPECT_EQ(run(), 1);
    EXPECT_EQ(task_->mTaskState, CBackupTask::StateSucceeded);
}

} // namespace

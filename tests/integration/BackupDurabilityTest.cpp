// A run is done only when the store has made what it sent durable: a store that cannot
// sync fails the run, the next run makes it durable, and a run that stored nothing asks
// for nothing.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>

#include "engine/task/CBackupTask.h"
#include "platform/framework/HeadlessMessagebox.h"
#include "platform/framework/NimboMessagebox.h"
#include "platform/framework/SessionFixture.h"
#include "platform/os/Clock.h"
#include "platform/os/ResultCodes.h"
#include "platform/os/UrlOpener.h"
#include "support/CErrorLog.h"

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

class BackupDurabilityTest : public test::SessionFixture {
protected:
    void SetUp() override {
        SessionFixture::SetUp();
        store_ = counting_ = std::make_shared<FlushCountingStore>(local_);
        api().SetBackend(counting_); // the same session goes on through the wrapper
        clock_ = std::make_shared<ManualClock>(Date(T));
        Clock::setShared(clock_);
        NimboMessagebox::setPresenter(std::make_shared<HeadlessMessagebox>());
        UrlOpener::setOpenerProgram("true");
        task_->name = "Projects";
        task_->serverPath = "\\Backups\\Projects";
        task_->localDirList = {home_.file("work")};
    }
    void TearDown() override {
        UrlOpener::setOpenerProgram("");
        NimboMessagebox::setPresenter(nullptr);
        Clock::setShared(nullptr);
        SessionFixture::TearDown();
    }
    int run() {
        const int before = counting_->flushes;
        task_->StartBackup(false);
        std::shared_ptr<Thread> worker = task_->pBackupTaskThread;
        task_->checkFinshedBackup();
        worker->join();
        clock_->advance(3600);
        return counting_->flushes - before;
    }
    size_t finishedEvents() {
        size_t n = 0;
        for (const auto& line : CErrorLog::GetErrorList().value_or(std::vector<std::string>{}))
            n += line.find("Backup finished successfully.") != std::string::npos;
        return n;
    }

    std::shared_ptr<FlushCountingStore> counting_;
    std::shared_ptr<ManualClock> clock_;
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

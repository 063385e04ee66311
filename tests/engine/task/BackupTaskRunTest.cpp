#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <future>
#include <mutex>
#include <tuple>

#include "common/EngineSession.h"
#include "engine/task/UploadPool.h"
#include "platform/framework/NimboSetting.h"
#include "platform/view/headless/HeadlessViewBackend.h"

using namespace cirrovault;
using Op = FaultInjectingStore::Operation;

namespace {

constexpr double T = 1'600'000'000.0;

// Records every notice, and for notice 4 the file whose upload begins. Read once the
// run's threads have ended.
struct RecordingDelegate : StowlineDelegate {
    bool StowlineDelegateFun(const std::shared_ptr<CBackupTask>& task,
                             StowlineDelegateType type) override {
        std::lock_guard lock(mutex);
        if (type != refreshProgressBarDelegate)
            milestones.push_back(type);
        else if (task && task->bInitUIPrgBar)
            working.push_back(task->strWorkingFile);
        return true;
    }
    void clear() {
        milestones.clear();
        working.clear();
    }
    std::mutex mutex;
    std::vector<int> milestones;
    std::vector<std::string> working;
};

class BackupTaskRunThread : public test::EngineSession {
protected:
    void SetUp() override {
        EngineSession::SetUp();
        Clock::setShared(clock_);
        task_ = newTask("Docs", "\\Backup");
    }
    std::shared_ptr<CBackupTask> newTask(const std::string& name, const std::string& serverPath) {
        auto task = std::make_shared<CBackupTask>();
        task->name = name;
        task->serverPath = serverPath;
        task->localDirList = {home_.file("src")};
        task->SetDelegate(&delegate_);
        return task;
    }
    std::string local(const std::string& name, const std::string& content, double time = T) {
        return makeFile("src/" + name, content, time);
    }
    void run() { runToEnd(*task_); }
    // The walk alone over the given list, as the run calls it.
    void walk(std::vector<std::string> entries) {
        task_->pPrgBar = std::make_shared<TrueProgressCallback>();
        task_->scanFileArray = std::move(entries);
        task_->iBackupRet = 0;
        task_->BeginUploadingData();
    }
    // Cancels the run from this thread while the worker is inside its first transfer.
    void cancelledRun() {
        store_->hangNextPut();
        task_->StartBackup(false);
        std::shared_ptr<Thread> worker = task_->pBackupTaskThread;
        store_->waitUntilHanging();
        task_->CancelBackup();
        task_->checkFinshedBackup();
        worker->join();
    }
    std::shared_ptr<ManualClock> clock_ = std::make_shared<ManualClock>(Date(T));
    RecordingDelegate delegate_;
    std::shared_ptr<CBackupTask> task_;
};

TEST_F(BackupTaskRunThread, RunSendsNoticesInOrderAndRerunsListEachServerFolderAtMostOnce) {
    for (const char* folder : {"a", "b", "c d"})
        for (int i = 0; i < 10; ++i)
            local(std::string(folder) + "/f" + std::to_string(i) + ".txt", "content", T);
    task_->mLastRunDate = Date(0);
    clock_->set(Date(T + 75.5)); // 1:15.5 into a minute of the epoch's whole minutes
    run();
    EXPECT_EQ(task_->mTaskState, CBackupTask::StateSucceeded);
    EXPECT_EQ(std::tuple(task_->iBackupRet, task_->iErrorTimes, task_->scanFileArray.size()),
              std::tuple(0ul, 0, 0ul));
    EXPECT_EQ(task_->pPrgBar, nullptr);
    EXPECT_EQ(std::fmod(task_->mLastRunDate.timeIntervalSince1970(), 60.0), 0.0);
    EXPECT_EQ(fetch("\\Backup\\src\\c d\\f9.txt"), "content");
    EXPECT_EQ(delegate_.milestones, (std::vector<int>{1, 3, 5, 0, 2}));
    EXPECT_EQ(eventsContaining("Backup started."), 1u);
    EXPECT_EQ(eventsContaining("Backup finished successfully."), 1u);
    EXPECT_EQ(clock_->now().timeIntervalSince1970(), T + 75.5); // no window: no pause
    StoreItem root;
    ASSERT_EQ(local_->stat("\\", root), ResultCode::Success);
    ASSERT_EQ(root.fileCount, 30);

    // A window showing the run's figures keeps them up two seconds before closing.
    struct FiguresWindow : HeadlessViewBackend {
        bool showsFiguresInWindow() const override { return true; }
    };
    delegate_.clear();
    ViewBackend::setShared(std::make_shared<FiguresWindow>());
    run();
    ViewBackend::setShared(nullptr);
    EXPECT_EQ(delegate_.milestones, (std::vector<int>{1, 3, 5, 0, 2}));
    EXPECT_EQ(clock_->now().timeIntervalSince1970(), T + 77.5);

    // A run ending for a log-off sends no closing notices.
    delegate_.clear();
    task_->bLogOff = true;
    run();
    EXPECT_EQ(delegate_.milestones, (std::vector<int>{1, 3}));
    EXPECT_EQ(task_->mTaskState, CBackupTask::StateSucceeded);
    task_->bLogOff = false;

    for (int pass = 1; pass <= 2; ++pass) {
        SCOPED_TRACE(pass);
        local("b/f" + std::to_string(pass) + ".txt", "changed " + std::to_string(pass), T + 100);
        local("c d/f" + std::to_string(pass) + ".txt", "changed", T + 100);
        store_->resetCounts();
        delegate_.clear();
        run();
        EXPECT_EQ(task_->mTaskState, CBackupTask::StateSucceeded);
        EXPECT_EQ(delegate_.working.size(), 2u);
        for (const auto& [folder, count] : store_->listCounts())
            EXPECT_LE(count, 1) << folder;
        EXPECT_EQ(fetch("\\Backup\\src\\b\\f" + std::to_string(pass) + ".txt"),
                  "changed " + std::to_string(pass));
        ASSERT_EQ(local_->stat("\\", root), ResultCode::Success);
        EXPECT_EQ(root.fileCount, 30 + 2 * pass); // the old copies are kept as versions
    }
}

TEST_F(BackupTaskRunThread, ConsecutiveFailuresPushTheRetryTwoHoursFurtherEachTime) {
    local("a.txt", "alpha");
    local("b.txt", "beta");
    // A full account ends the walk at once; any other refusal fails the file.
    store_->failPutWithSpaceLimit(1);
    for (int n = 1; n <= 3; ++n) {
        run();
        if (n == 1) {
            EXPECT_EQ(task_->iBackupRet, 10u);
            EXPECT_EQ(store_->putCount(), 1);
            store_->failOperation(Op::Put, ResultCode::LocalFileError);
        }
        EXPECT_EQ(task_->mTaskState, CBackupTask::StateFailed);
        EXPECT_EQ(task_->iErrorTimes, n);
        EXPECT_TRUE(task_->bResume);
        EXPECT_DOUBLE_EQ(task_->mResumeDate.timeIntervalSinceDate(clock_->now()), n * 7200.0);
        EXPECT_EQ(delegate_.milestones, (std::vector<int>{1, 3, 5, 0, 2}));
        delegate_.clear();
        clock_->advance(600);
    }
    EXPECT_EQ(eventsContaining("Backup finished successfully."), 0u);

    store_->clearFaults();
    run();
    EXPECT_EQ(task_->mTaskState, CBackupTask::StateSucceeded);
    EXPECT_EQ(task_->iErrorTimes, 0);
    EXPECT_FALSE(task_->bResume);
}

TEST_F(BackupTaskRunThread, FolderCreationIsRetriedOnceOnOrdinaryFailureOnlyAndNoFolderEndsTheRun) {
    local("a.txt", "alpha");
    store_->failOperation(Op::MakeFolder, ResultCode::Failure, 1);
    run();
    EXPECT_EQ(task_->mTaskState, CBackupTask::StateSucceeded);

    task_ = newTask("Other", "\\Other");
    store_->failOperation(Op::MakeFolder, ResultCode::Failure, 2);
    run();
    EXPECT_EQ(task_->mTaskState, CBackupTask::StateFailed);
    EXPECT_EQ(task_->iBackupRet, 3u);
    EXPECT_EQ(store_->putCount(), 1); // only the first task's file

    store_->failOperation(Op::MakeFolder, ResultCode::StorageError, 1);
    run();
    EXPECT_EQ(task_->iBackupRet, static_cast<uint64_t>(ResultCode::StorageError));
    store_->clearFaults();

    // No server folder at all: the run ends before it begins.
    task_->serverPath = "";
    delegate_.clear();
    run();
    EXPECT_EQ(task_->mTaskState, CBackupTask::StateRunning);
    EXPECT_EQ(delegate_.milestones, (std::vector<int>{1}));
    EXPECT_EQ(eventsContaining("has no destination folder"), 1u);
    EXPECT_EQ(eventsContaining("Backup started."), 3u); // the three earlier runs only
    EXPECT_TRUE(SystemLog::capturedContains("Other server path is empty."));
}

TEST_F(BackupTaskRunThread,
       WalkRetriesOrdinaryFailuresSkipsTheNextEntryForOnePassAndEndsOnAFatalCodeOrCancel) {
    std::string a = local("a.txt", "A");
    std::string b = local("b.txt", "B");
    std::string c = local("c.txt", "C");
    std::string gone = home_.file("src/gone.txt");

    store_->failOperation(Op::Put, ResultCode::Failure, 21);
    walk({a, b, gone, c});
    // a: 21 failed attempts; b waits a pass, gone leaves, c goes; the next pass: a, b.
    std::vector<std::string> expected(21, a);
    expected.insert(expected.end(), {c, a, b});
    EXPECT_EQ(delegate_.working, expected);
    EXPECT_EQ(std::pair(task_->iBackupRet, task_->scanFileArray.size()), std::pair(0ul, 0ul));
    EXPECT_EQ(fetch("\\Backup\\src\\a.txt"), "A");
    EXPECT_EQ(task_->uiTaskCurrentUploadSize, 3u);
    EXPECT_TRUE(task_->blogModify);

    // A fatal code or a cancel ends the walk.
    const int puts = store_->putCount();
    store_->failOperation(Op::Put, ResultCode::SubItemLimit, 1);
    walk({local("d.txt", "D"), local("e.txt", "E")});
    EXPECT_EQ(task_->iBackupRet, 73u);
    EXPECT_EQ(store_->putCount(), puts + 1);
    EXPECT_EQ(task_->scanFileArray.size(), 2u);

    task_->pPrgBar = std::make_shared<TrueProgressCallback>();
    task_->pPrgBar->setBClickedCancel(true);
    task_->iBackupRet = 0;
    task_->BeginUploadingData();
    EXPECT_EQ(task_->iBackupRet, 6u);
    EXPECT_EQ(store_->putCount(), puts + 1);
}

// On a store keeping seconds, the settings' span widens both windows, for equal sizes only.
TEST_F(BackupTaskRunThread, UploadChangeTestTakesTheSettingsSpanOnCoarseStores) {
    local_->makeFolder("\\Backup", "", "");
    local_->makeFolder("\\Backup\\src", "", "");
    putCopy("\\Backup\\src\\near.txt", "abcd", T + 0.5);
    for (const char* name : {"hour.txt", "same.txt"})
        putCopy("\\Backup\\src\\" + std::string(name), "1234", T);
    store_->claimTimePrecision(1);
    ASSERT_TRUE(NimboSetting::SetSettingValueForKey("IgnoreTimeSpan", "5"));
    walk({local("near.txt", "wxyz", T + 5.5), local("hour.txt", "abcd", T + 3595),
          local("same.txt", "abcde", T + 1)});
    EXPECT_EQ(store_->putCount(), 1);
    EXPECT_EQ(fetch("\\Backup\\src\\same.txt"), "abcde");
}

// A cancel during a transfer moves a bounded-window schedule 42 hours on, daily and weekly
// ones to their next slot; flag bits above the kind do not matter.
TEST_F(BackupTaskRunThread, CancelDuringTransferEndsTheRunAndMovesTheNextRunByItsKind) {
    local("a.txt", "alpha");
    const Date dating(T + 3600);
    for (auto [kind, step] : {std::pair{CBackupTask::ScheduleBetweenDates, 151'200.0},
                              std::pair{CBackupTask::ScheduleDaily, 86'400.0},
                              std::pair{CBackupTask::ScheduleWeekly, 7 * 86'400.0}}) {
        SCOPED_TRACE(kind);
        task_ = newTask("Kind" + std::to_string(kind), "\\Kind" + std::to_string(kind));
        task_->taskType = kind | 0x30;
        task_->mDating = dating;
        delegate_.clear();
        cancelledRun();
        EXPECT_EQ(task_->mTaskState, CBackupTask::StateCancelled);
        EXPECT_EQ(task_->iBackupRet, 6u);
        EXPECT_EQ(task_->iErrorTimes, 0);
        EXPECT_EQ(delegate_.milestones, (std::vector<int>{1, 3, 5, 0, 2}));
        EXPECT_EQ(task_->GetProgress(), nullptr);
        EXPECT_DOUBLE_EQ(task_->mDating.timeIntervalSinceDate(dating), step);
    }
    EXPECT_EQ(eventsContaining("Backup finished successfully."), 0u);

    // A window run that finishes keeps its date; cancelled after an error, it steps a day.
    task_->taskType = CBackupTask::ScheduleBetweenDates;
    task_->mDating = dating;
    run();
    EXPECT_EQ(task_->mTaskState, CBackupTask::StateSucceeded);
    EXPECT_DOUBLE_EQ(task_->mDating.timeIntervalSinceDate(dating), 0.0);

    task_->pPrgBar = std::make_shared<TrueProgressCallback>();
    task_->bHaveErr = true;
    task_->iBackupRet = static_cast<uint64_t>(ResultCode::Cancelled);
    task_->FinishBackup();
    EXPECT_EQ(task_->mTaskState, CBackupTask::StateCancelled);
    EXPECT_DOUBLE_EQ(task_->mDating.timeIntervalSinceDate(dating), 86'400.0);
}

// A job that ends only once released, so the test decides the order of the ends.
struct GatedJob : UploadPool::Job {
    explicit GatedJob(int id) : id(id) {}
    void run() override {
        started.set_value();
        released.wait();
        ran = true;
    }
    const int id;
    std::promise<void> started, release;
    std::shared_future<void> hasStarted = started.get_future().share();
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> ran{false};
};

TEST(UploadPoolTest, JobsRunSideBySideAndAreTakenBackInTheOrderGiven) {
    UploadPool pool(2);
    auto first = std::make_shared<GatedJob>(1);
    auto second = std::make_shared<GatedJob>(2);
    auto third = std::make_shared<GatedJob>(3);
    pool.submit(first);
    pool.submit(second);
    first->hasStarted.wait();
    second->hasStarted.wait(); // both threads busy at once
    pool.submit(third);        // waits for a thread: the queue has room for it

    second->release.set_value();
    third->hasStarted.wait();
    third->release.set_value();
    // The later jobs have ended, but the first comes back first.
    EXPECT_EQ(pool.takeFinished(false), nullptr);
    first->release.set_value();
    for (int id : {1, 2, 3}) {
        auto job = std::static_pointer_cast<GatedJob>(pool.takeFinished(true));
        ASSERT_NE(job, nullptr);
        EXPECT_EQ(job->id, id);
        EXPECT_TRUE(job->ran);
    }
    EXPECT_EQ(pool.takeFinished(true), nullptr);
    EXPECT_TRUE(pool.empty());
}

} // namespace

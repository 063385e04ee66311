#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <ctime>
#include <future>
#include <mutex>
#include <tuple>

#include <sys/stat.h>
#include <unistd.h>

#include "common/EngineLoopDialog.h"
#include "common/EngineSession.h"
#include "common/LocalDate.h"
#include "common/ScopedEnv.h"
#include "engine/task/UploadPool.h"
#include "engine/task/VersionNames.h"
#include "platform/framework/AccountBalance.h"
#include "platform/framework/Functions.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/MailSender.h"
#include "platform/framework/NimboSetting.h"
#include "platform/framework/UploadFileInfo.h"
#include "platform/os/Calendar.h"
#include "platform/os/FileSystem.h"
#include "platform/view/headless/HeadlessViewBackend.h"
#include "service/CManageTaskList.h"
#include "support/CFileInfo.h"
#include "support/GlobalFunction.h"
#include "support/OptionsMan.h"

using namespace cirrovault;
using Op = FaultInjectingStore::Operation;

namespace {

constexpr double T = 1'600'000'000.0;
constexpr int64_t MB = 1 << 20;

std::string size(int64_t bytes) {
    return Functions::FormatSizeToString(bytes);
}
std::string text(const char* key) {
    return LoadString::GetValueByKey(key, "");
}

// Records every notice, for notice 4 the file whose upload begins, and the scan's
// notices as "rescan <info>" or "finished" by the progress marks of the time; may cancel
// at a rescan notice. Read once the run's threads have ended.
struct RecordingDelegate : StowlineDelegate {
    bool StowlineDelegateFun(const std::shared_ptr<CBackupTask>& task,
                             StowlineDelegateType type) override {
        std::lock_guard lock(mutex);
        if (type != refreshProgressBarDelegate)
            milestones.push_back(type);
        else if (task && task->bInitUIPrgBar)
            working.push_back(task->strWorkingFile);
        if (!task)
            return true;
        std::string rescan = "rescan " + task->strRescanInfoForPrgbar.value_or("");
        notices.push_back(task->bRescanForPrgBar ? rescan
                          : task->bFinishScanForPrgBar ? "finished" : "other");
        if (cancelAtRescan && task->bRescanForPrgBar)
            task->pPrgBar->setBClickedCancel(true);
        return true;
    }
    void clear() {
        milestones.clear();
        working.clear();
    }
    std::mutex mutex;
    std::vector<int> milestones;
    std::vector<std::string> working, notices;
    bool cancelAtRescan = false;
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
    // serverFolder, holding "\src", made on the store for the task.
    void useServerFolder(const std::string& serverFolder) {
        task_->serverPath = serverFolder;
        for (size_t at = 1; at <= serverFolder.size(); ++at) {
            if (at == serverFolder.size() || serverFolder[at] == '\\')
                local_->makeFolder(serverFolder.substr(0, at), "", "");
        }
        local_->makeFolder(serverFolder + "\\src", "", "");
        tree().RefreshSvrPath("\\");
        store_->resetCounts();
    }
    void stored(const std::string& name, const std::string& content, double time) {
        putCopy(task_->serverPath + "\\src\\" + name, content, time);
    }
    bool decide(const std::string& name, const std::string& content, double time) {
        return task_->CalculateBackupFileSize(local(name, content, time));
    }
    int64_t freeSpace() {
        AccountBalance balance;
        EXPECT_EQ(api().GetAccountBalance(balance), ResultCode::Success);
        return balance.maxSpace - balance.fileSpaceUsed - balance.msgSpaceUsed;
    }
    void setFree(int64_t bytes) {
        AccountBalance balance;
        ASSERT_EQ(api().GetAccountBalance(balance), ResultCode::Success);
        ASSERT_EQ(local_->setQuota(balance.fileSpaceUsed + balance.msgSpaceUsed + bytes),
                  ResultCode::Success);
    }
    // The prompts shown since the last call, as "style|text".
    std::vector<std::string> prompts() {
        std::vector<std::string> shown;
        for (const auto& prompt : dialogs_->shown())
            shown.push_back(std::to_string(prompt.style) + "|" + prompt.text);
        dialogs_->clearShown();
        return shown;
    }
    // One upload as the run does it: keep the current copy, then overwrite it.
    std::string upload(const std::string& relative, const std::string& content, double time) {
        std::string local = makeFile("src/" + relative, content, time);
        std::string folder = task_->getTargetSvrFolder(local, true);
        std::string name = CFileInfo::getMacFileName(local, false);
        std::string serverFile = CFileInfo::serverPathAppend(folder, name);
        EXPECT_TRUE(GlobalFunction::CreateSrvFolder(folder, "", "", nullptr));
        PathInfo info;
        EXPECT_TRUE(!tree().FindPath(serverFile, info, false) ||
                    task_->recordCurrent(serverFile, task_->uiMaxVersion, name));
        TransferInfo transfer;
        transfer.setLocFile(local);
        transfer.setSvrFile(serverFile);
        UploadFileInfo uploaded;
        EXPECT_EQ(api().UploadFile(transfer, uploaded), ResultCode::Success);
        return serverFile;
    }
    std::vector<std::string> names(const std::string& folder) {
        std::vector<PathInfo> entries;
        tree().GetSubList(folder, entries, false, false);
        std::vector<std::string> result;
        for (const auto& entry : entries)
            result.push_back(entry.name);
        std::sort(result.begin(), result.end());
        return result;
    }
    std::string versionFolder(const std::string& sub) {
        return task_->getSvrHistoryFolder(false) + "\\" + task_->name + "\\" + sub;
    }

    std::shared_ptr<ManualClock> clock_ = std::make_shared<ManualClock>(Date(T));
    RecordingDelegate delegate_;
    std::shared_ptr<CBackupTask> task_;
};

class BackupTaskSpace : public BackupTaskRunThread {
protected:
    void SetUp() override {
        BackupTaskRunThread::SetUp();
        useServerFolder("\\Backup");
    }
};

using BackupTaskVersions = BackupTaskSpace;


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


TEST(BackupTaskChangeRule, ExactStoresTrustTheTimeCoarseOnesForgiveEqualSizesOnly) {
    auto current = [](uint64_t size, double at, uint64_t storedSize, double precision,
                      int64_t window, bool encrypted = false) {
        return CBackupTask::storedCopyIsCurrent(size, Date(at), storedSize, Date(T), encrypted,
                                                precision, window);
    };
    for (double precision : {1e-9, 1.0}) {
        SCOPED_TRACE(precision);
        EXPECT_TRUE(current(4, T, 4, precision, 2));
        // Grown from 30 to 40 bytes and saved within the window: always sent.
        EXPECT_FALSE(current(40, T + 2, 30, precision, 2));
        EXPECT_FALSE(current(40, T, 30, precision, 2));
        // A clock moved by one hour is no change with the same size only.
        EXPECT_TRUE(current(4, T + 3600, 4, precision, 2));
        EXPECT_FALSE(current(5, T + 3600, 4, precision, 2));
        // An encrypted copy is 128 bytes longer.
        EXPECT_TRUE(current(4, T, 132, precision, 2, true));
        EXPECT_FALSE(current(4, T, 4, precision, 2, true));
    }
    // A store keeping exact times: any difference is a change.
    EXPECT_FALSE(current(4, T + 0.001, 4, 1e-9, 2));
    EXPECT_FALSE(current(4, T + 3601, 4, 1e-9, 2));
    // A store keeping seconds: the window over equal sizes, whole seconds only.
    EXPECT_TRUE(current(4, T + 2.9, 4, 1, 2));
    EXPECT_FALSE(current(4, T + 3, 4, 1, 2));
    EXPECT_TRUE(current(4, T - 3602.5, 4, 1, 2));
    EXPECT_FALSE(current(4, T + 3603, 4, 1, 2));
    EXPECT_TRUE(current(4, T + 0.9, 4, 1, 0));
    EXPECT_FALSE(current(4, T + 1, 4, 1, 0));
}

TEST_F(BackupTaskSpace, ChangeDecisionOnTheLocalStoreResumedUploadsAndEncryptedExtra) {
    for (const char* name : {"same.txt", "near.txt", "hour.txt", "grown.txt"})
        stored(name, "1234", T);
    stored("resume.txt.part", "12345", T); // an interrupted upload
    stored("a%3Ab.txt", "1", T);            // "a:b.txt" under the name the service takes

    EXPECT_FALSE(decide("same.txt", "abcd", T));
    EXPECT_FALSE(decide("hour.txt", "abcd", T + 3600));
    EXPECT_EQ(std::pair(task_->uiNeedSpace, task_->scanFileArray.size()), std::pair(0ul, 0ul));

    EXPECT_TRUE(decide("near.txt", "abcd", T + 1.5)); // the local store keeps exact times
    EXPECT_TRUE(decide("grown.txt", "abcdefghij", T + 2)); // charged in full
    EXPECT_EQ(task_->uiNeedSpace, 4u + 10u);

    EXPECT_TRUE(decide("new.txt", "abcdefg", T));
    EXPECT_EQ(task_->uiNeedSpace, 21u);

    // Resumed upload: listed, but it adds nothing and lowers the remote size.
    task_->uiRemoteSize = 3;
    EXPECT_TRUE(decide("resume.txt", "abcdefgh", T));
    EXPECT_EQ(std::pair(task_->uiNeedSpace, task_->uiRemoteSize), std::pair(21ul, 0ul));
    task_->uiRemoteSize = 100;
    task_->getPartSizeFromSever(home_.file("src/resume.txt"));
    EXPECT_EQ(task_->uiRemoteSize, 95u);

    EXPECT_EQ(task_->fileTotalSize, 4u + 10u + 7u + 8u);
    std::vector<std::string> expected;
    for (const char* name : {"near.txt", "grown.txt", "new.txt", "resume.txt"})
        expected.push_back(home_.file(std::string("src/") + name));
    EXPECT_EQ(task_->scanFileArray, expected);

    task_->filterExt = {"*.log"};
    EXPECT_FALSE(decide("x.log", "l", T));
    EXPECT_FALSE(decide("a:b.txt", "l", T)); // found under its escaped name
    // Too long once encoded: left out, and named for the event log and the summary.
    const std::string colons(90, ':');
    EXPECT_FALSE(decide(colons, "l", T));
    EXPECT_EQ(task_->leftOutPaths, std::vector<std::string>{home_.file("src/" + colons)});
    EXPECT_FALSE(task_->CalculateBackupFileSize(home_.file("src/missing.txt")));

    EXPECT_EQ(store_->listCount("\\Backup\\src"), 1);

    // An encrypted task charges new files 128 bytes more.
    useServerFolder("\\" + LoadString::GetValueByKey("EncryptionFolder", "") + "\\Backup");
    task_->uiNeedSpace = task_->fileTotalSize = 0;
    stored("moved.txt", std::string(4 + 128, 'e'), T);
    stored("changed.txt", std::string(4 + 128, 'e'), T);
    EXPECT_FALSE(decide("moved.txt", "abcd", T + 3600));
    EXPECT_TRUE(decide("changed.txt", "abcd", T + 60));
    EXPECT_EQ(task_->uiNeedSpace, 4u);
    EXPECT_TRUE(decide("new.txt", "abcdef", T));
    EXPECT_EQ(task_->uiNeedSpace, 4u + 6u + 128u);
    EXPECT_EQ(task_->fileTotalSize, 10u);
}

TEST_F(BackupTaskSpace, AccountSpaceCheck) {
    setFree(5 * MB);
    EXPECT_TRUE(task_->CheckAccountSpace(1));
    EXPECT_TRUE(prompts().empty());

    // Exactly enough is not enough. Declining with some space left ends quietly.
    EXPECT_FALSE(task_->CheckAccountSpace(5 * MB));
    EXPECT_EQ(std::pair(task_->iBackupRet, task_->bHaveErr.load()), std::pair(0ul, false));
    EXPECT_EQ(prompts(), std::vector<std::string>{
                             "8|" + LoadString::Format("IDS_NEEDMOREBUYSPACE", "Docs", 5, 5)});

    // Needed MB rounded up, free MB rounded down.
    setFree(MB + MB / 2);
    EXPECT_FALSE(task_->CheckAccountSpace(MB + MB / 2 + MB / 4));
    EXPECT_EQ(prompts(), std::vector<std::string>{
                             "8|" + LoadString::Format("IDS_NEEDMOREBUYSPACE", "Docs", 2, 1)});

    // Nothing left: the other prompt, and declining refuses the run.
    setFree(0);
    EXPECT_FALSE(task_->CheckAccountSpace(1));
    EXPECT_EQ(std::pair(task_->iBackupRet, task_->bHaveErr.load()),
              std::pair(static_cast<uint64_t>(ResultCode::SpaceLimit), true));
    EXPECT_EQ(prompts(), std::vector<std::string>{"6|" + LoadString::Format("NeedMoreBuySpace", 0)});
    EXPECT_FALSE(task_->CheckAccountSpace(0));
    EXPECT_EQ(SystemLog::capturedCount("needspace is zero."), 1u);
    prompts();

    // Ordering space and retrying reads fresh figures and asks again.
    dialogs_->queueAnswer(MessageboxAnswer::OrderSpace);
    dialogs_->queueAnswer(MessageboxAnswer::Retry);
    EXPECT_FALSE(task_->CheckAccountSpace(1));
    EXPECT_EQ(prompts().size(), 3u);
    EXPECT_EQ(task_->iBackupRet, static_cast<uint64_t>(ResultCode::SpaceLimit));

    // Account figures that cannot be read end the check with the service's code.
    api().Logoff();
    EXPECT_FALSE(task_->CheckAccountSpace(1));
    EXPECT_NE(task_->iBackupRet, 0u);
}

TEST_F(BackupTaskSpace, FreeSpaceBeforeARun) {
    int64_t code = -1;
    setFree(5 * MB);
    EXPECT_TRUE(CBackupTask::CheckFreeSpaceFromServer(MB, task_.get(), &code));
    EXPECT_EQ(code, 0);
    EXPECT_TRUE(prompts().empty());

    // Short of space: going on anyway is the user's choice (the default answer).
    setFree(MB);
    EXPECT_TRUE(CBackupTask::CheckFreeSpaceFromServer(2 * MB, task_.get(), &code));
    EXPECT_EQ(prompts(), std::vector<std::string>{
                             "8|" + LoadString::Format("IDS_STRNEEDMORESPACE", "Docs", size(2 * MB),
                                                       size(MB), size(2 * MB))});

    // Ordering space, then not trying again, stops the run.
    setFree(0);
    dialogs_->queueAnswer(MessageboxAnswer::OrderSpace);
    EXPECT_FALSE(CBackupTask::CheckFreeSpaceFromServer(MB, task_.get(), &code));
    EXPECT_EQ(prompts(),
              (std::vector<std::string>{"8|" + LoadString::Format("SubUserHaveBuyStorageSpace",
                                                                  "Docs", size(MB), size(0)),
                                        "3|" + LoadString::GetValueByKey("IDS_REBACKAGAIN", "")}));

    // More used than allowed: the free size shows negative.
    ASSERT_EQ(local_->setQuota(LocalStore::DiskQuota), ResultCode::Success);
    stored("big.bin", std::string(2000, 'b'), T);
    ASSERT_EQ(local_->setQuota(1000), ResultCode::Success);
    ASSERT_LT(freeSpace(), 0);
    EXPECT_TRUE(CBackupTask::CheckFreeSpaceFromServer(10, task_.get(), &code));
    EXPECT_NE(prompts().at(0).find("-" + size(-freeSpace())), std::string::npos);
}


TEST_F(BackupTaskVersions, FoldersAreMadeWithTheirDescriptionsAndCaptions) {
    std::string data = text("ApplicationDataPath");
    std::string tasks = CFileInfo::serverPathAppend(data, text("ServerStoreTaskPath"));
    std::string info = task_->getSvrInfoFolder();
    EXPECT_EQ(info, CFileInfo::serverPathAppend(tasks, text("IDS_INFOPATH")));
    EXPECT_EQ(task_->getSvrHistoryFolder(false),
              CFileInfo::serverPathAppend(tasks, text("IDS_HISTFOLDER")));
    std::string encrypted = task_->getSvrHistoryFolder(true);
    EXPECT_EQ(encrypted,
              CFileInfo::serverPathAppend(text("EncryptionFolder"), text("IDS_HISTFOLDER")));

    tree().RefreshSvrPath("\\");
    // The data folder has its caption text as description: the other way round.
    for (auto [folder, description, caption] :
         {std::tuple{data, text("IDS_STRORVODATACAP"), text("IDS_STRORVODATANOTE")},
          std::tuple{tasks, text("IDS_STRAPPFOLDERNOTE"), text("IDS_STRAPPFOLDERCAP")},
          std::tuple{info, text("IDS_INFONOTE"), text("IDS_INFOPATH")},
          std::tuple{encrypted, text("IDS_HISTNOTE"), std::string()}}) {
        PathInfo found;
        ASSERT_TRUE(tree().FindPath(folder, found, false)) << folder;
        EXPECT_EQ(found.description, description) << folder;
        EXPECT_EQ(found.caption, caption) << folder;
    }

    api().Logoff();
    EXPECT_EQ(task_->getSvrInfoFolder(), "");
    EXPECT_EQ(task_->getSvrHistoryFolder(true), "");
}

// "a1.txt" reads as a version of "a.txt": each file keeps and drops only its own.
TEST_F(BackupTaskVersions, KeepsAtMostMaxMinusOneVersionsReusingTheOldestNameEachOnlyItsOwn) {
    task_->uiMaxVersion = 3;
    const std::vector<std::string> files{"a.txt", "a1.txt"};
    for (int change = 0; change < 5; ++change)
        for (const auto& file : files)
            upload("x/" + file, file + " #" + std::to_string(change), T + change);
    const std::string versions = versionFolder("src\\x");
    auto own = [&](const std::string& file) {
        std::vector<std::string> kept;
        for (const auto& name : names(versions))
            if (VersionNames::numberOf(name, file, files))
                kept.push_back(fetch(versions + "\\" + name));
        std::sort(kept.begin(), kept.end());
        return kept;
    };
    for (const auto& file : files)
        EXPECT_EQ(fetch("\\Backup\\src\\x\\" + file), file + " #4");
    // Full, the oldest went and its name took the newer version; each kept only its own.
    std::vector<std::string> all;
    for (const auto& name : names(versions))
        all.push_back(name + "=" + fetch(versions + "\\" + name));
    EXPECT_EQ(all, (std::vector<std::string>{"a0.txt=a.txt #2", "a10.txt=a1.txt #2",
                                             "a11.txt=a1.txt #3", "a2.txt=a.txt #3"}));
    EXPECT_EQ(task_->getOldTimeHistoryFile(versions), "a0.txt");
    EXPECT_EQ(names("\\Backup\\src\\x"), files);

    task_->uiMaxVersion = 2;
    upload("x/a1.txt", "a1.txt #5", T + 20);
    EXPECT_EQ(own("a1.txt"), std::vector<std::string>{"a1.txt #4"});
    EXPECT_EQ(own("a.txt").size(), 2u);
}

// Nothing is kept below two versions or of a missing copy; a keep cut off (a refused move)
// leaves no version beside the file, where a restore would take it for a file of its own.
TEST_F(BackupTaskVersions, NothingKeptBelowTwoAndAnInterruptedKeepLeavesNoVersionBesideTheFile) {
    std::string serverFile = upload("x/a.txt", "one", T);
    for (uint64_t max : {0, 1})
        EXPECT_FALSE(task_->recordCurrent(serverFile, max, "a.txt"));
    EXPECT_FALSE(task_->recordCurrent("", 5, "a.txt"));
    EXPECT_EQ(names(versionFolder("src\\x")), std::vector<std::string>{});
    EXPECT_FALSE(task_->recordCurrent("\\Backup\\src\\gone.txt", 5, "gone.txt"));
    EXPECT_TRUE(SystemLog::capturedContains("Error:Edit file: \\Backup\\src\\gone.txt"));
    EXPECT_EQ(task_->getOldTimeHistoryFile("\\Backup\\missing"), "");

    for (int32_t passing : {0, 1, 2}) {
        store_->failOperation(FaultInjectingStore::Operation::Move, ResultCode::Failure, 1,
                              passing);
        bool kept = task_->recordCurrent(serverFile, task_->uiMaxVersion, "a.txt");
        store_->clearFaults();
        tree().RefreshSvrPath("\\");
        std::vector<std::string> beside = names("\\Backup\\src\\x");
        if (kept) {
            EXPECT_EQ(beside, std::vector<std::string>{}) << passing;
            EXPECT_EQ(names(versionFolder("src\\x")), (std::vector<std::string>{"a0.txt"}));
            break;
        }
        EXPECT_EQ(beside, std::vector<std::string>{"a.txt"}) << passing;
        EXPECT_EQ(fetch(serverFile), "one");
    }
}

TEST(VersionNamesTest, LongNamesAreCutWithAHashAndTheUsersNameStays) {
    std::string base(250, 'a');
    std::string first = base + ".txt";
    std::string second = base + "b.txt";
    std::string version = VersionNames::name(first, 123456789);
    EXPECT_LE(version.size(), 255u);
    EXPECT_TRUE(version.ends_with("123456789.txt"));
    EXPECT_NE(VersionNames::name(first, 0), VersionNames::name(second, 0));
    EXPECT_EQ(VersionNames::numberOf(version, first, {first, second}), 123456789u);
    EXPECT_FALSE(VersionNames::numberOf(version, second, {first, second}));
    EXPECT_EQ(VersionNames::rivals(first, {first, second, "b.txt"}),
              (std::vector<std::string>{second}));
    EXPECT_EQ(VersionNames::rivals("n0", {"n", "n0", "n05", "m05", "n050"}),
              (std::vector<std::string>{"n05", "n050"}));

    // A cut never splits a character.
    std::string accented;
    for (int i = 0; i < 125; ++i)
        accented += "é";
    std::string cut = VersionNames::name(accented + ".txt", 7);
    EXPECT_LE(cut.size(), 255u);
    size_t mark = cut.find('~');
    ASSERT_NE(mark, std::string::npos);
    EXPECT_EQ(mark % 2, 0u);

    // Short names stay base + number + extension; only numbers this system writes count.
    EXPECT_EQ(VersionNames::name("notes", 3), "notes3");
    EXPECT_EQ(VersionNames::name(".profile", 1), ".profile1");
    EXPECT_EQ(VersionNames::name("a.tar.gz", 0), "a.tar0.gz");
    EXPECT_FALSE(VersionNames::numberOf("n05", "n", {}));
    EXPECT_FALSE(VersionNames::numberOf("n", "n", {}));
    EXPECT_FALSE(VersionNames::numberOf("a0.md", "a.txt", {}));
}


class BackupTaskReport : public BackupTaskRunThread {
protected:
    void SetUp() override {
        BackupTaskRunThread::SetUp();
        CErrorLog::releaseErrorLogClass();
        OptionsMan::clearnOptionsManClass();
        task_->mPCName = "desk";
        task_->taskID = 42;
    }
    void TearDown() override {
        OptionsMan::clearnOptionsManClass();
        CErrorLog::releaseErrorLogClass();
        BackupTaskRunThread::TearDown();
    }

    // The records of the event log, without the format mark and the empty tail.
    std::vector<std::string> events() {
        std::vector<std::string> records;
        for (const auto& line : CErrorLog::GetErrorList().value_or(std::vector<std::string>{}))
            if (!line.empty() && line.find('|') != std::string::npos)
                records.push_back(line);
        return records;
    }
    void setOptions(const std::string& email, bool whenError, bool whenFinish) {
        OptionsMan::setReportEmail(email);
        OptionsMan::SetReportWhenError(whenError);
        OptionsMan::SetReportWhenFinish(whenFinish);
        OptionsMan::SaveOptions();
        OptionsMan::clearnOptionsManClass(); // the report must load them itself
    }
    std::vector<std::string> mails() { // in no particular order
        std::vector<std::string> messages;
        std::string outbox = MailSender::outboxFolder(api().customerID());
        for (const auto& name : FileSystem::listDirectory(outbox).value_or(std::vector<std::string>{}))
            if (name.ends_with(".eml"))
                messages.push_back(readFile(outbox + "/" + name));
        return messages;
    }
    // Whether one of the messages has the subject of key, up to the task's name.
    static bool has(const std::vector<std::string>& messages, const char* key) {
        std::string subject = LoadString::GetValueByKey(key);
        subject = "Subject: " + subject.substr(0, subject.find('{'));
        return std::any_of(messages.begin(), messages.end(), [&](const std::string& message) {
            return message.find(subject) != std::string::npos;
        });
    }

};

TEST_F(BackupTaskReport, ResultCodesBecomeErrorTextAndEvents) {
    task_->getBackupTaskResult(0, "\\Backup\\a", "/a");
    task_->getBackupTaskResult(6, "\\Backup\\a", "/a");
    EXPECT_FALSE(task_->bHaveErr || task_->strErrLog);
    EXPECT_TRUE(events().empty());

    task_->getBackupTaskResult(73, "\\Backup\\big", "/big");
    std::string limit = LoadString::Format("OrvoSubItemLimitation", "\\Backup\\big", 1000);
    EXPECT_EQ(task_->strErrLog, limit);
    EXPECT_TRUE(task_->bHaveErr);
    std::vector<std::string> records = events();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].substr(0, records[0].rfind('|', records[0].rfind('|') - 1)),
              records[1].substr(0, records[1].rfind('|', records[1].rfind('|') - 1)));
    EXPECT_TRUE(records[0].starts_with("Docs|42|"));

    std::string codeText = TransferApiUtil::stringWithReturnCode(3);
    task_->getBackupTaskResult(3, "\\Backup\\a.txt", "/home/a.txt");
    EXPECT_EQ(task_->strErrLog,
              LoadString::Format("StrLogUploadFail", "/home/a.txt", "\\Backup\\a.txt", codeText));
    task_->getBackupTaskResult(3, "\\Backup\\a.txt", "");
    EXPECT_EQ(task_->strErrLog, codeText);
    task_->getBackupTaskResult(3, "", "/home/a.txt");
    EXPECT_EQ(task_->strErrLog, codeText);
    EXPECT_EQ(events().size(), 5u);
}

TEST_F(BackupTaskReport, MailsFollowTheAccountOptions) {
    // No address: nothing, whatever else is on.
    task_->bHaveErr = true;
    setOptions("", true, true);
    task_->sendLogByEmail(3);
    EXPECT_TRUE(mails().empty());

    // A success with only error reports on: nothing.
    task_->bHaveErr = false;
    setOptions("me@example.com", true, false);
    task_->sendLogByEmail(0);
    EXPECT_TRUE(mails().empty());

    // A cancelled run with an error: the failure mail only.
    task_->bHaveErr = true;
    task_->strErrLog = "disk gone";
    setOptions("me@example.com", true, true);
    task_->sendLogByEmail(6);
    std::vector<std::string> sent = mails();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_TRUE(has(sent, "FailEmailTitle"));

    // A failed run with both on: the failure and the completion mail.
    task_->nScanTotalFiles = 12;
    task_->uiMaxVersion = 4;
    task_->leftOutPaths = {"/home/u/a-name-too-long"};
    task_->runStartDate = Date::now().addingTimeInterval(-65);
    task_->sendLogByEmail(3);
    sent = mails();
    EXPECT_EQ(sent.size(), 3u);
    EXPECT_TRUE(has(sent, "SuccessEmailTitle"));
    // Both carry the run's figures: one left-out file and the error make two problems.
    int withFigures = 0;
    for (const auto& message : sent) {
        if (message.find("New or changed files found: 12 (") == std::string::npos)
            continue;
        ++withFigures;
        EXPECT_NE(message.find("up to 3\r\nProblems: 2\r\nDuration: 0:01:0"), std::string::npos) << message;
    }
    EXPECT_EQ(withFigures, 2);
}

TEST_F(BackupTaskReport, TaskListUploadAndReload) {
    task_->localDirList = {"/home/u/Docs", "/home/u/Pictures"};
    task_->uiMaxVersion = 4;
    ASSERT_TRUE(task_->uploadTaskList("Add", "Docs"));
    task_->description = "changed";
    ASSERT_TRUE(task_->uploadTaskList("Edit", "Docs"));

    CManageTaskList list;
    std::string reply = list.getBackupTasks("Docs", "true");
    EXPECT_NE(reply.find("changed"), std::string::npos);

    auto loaded = std::make_shared<CBackupTask>();
    loaded->name = "Docs";
    EXPECT_EQ(loaded->loadFilePathListFromDB(), 0);
    EXPECT_EQ(loaded->localDirList, task_->localDirList);
    EXPECT_TRUE(loaded->sourceInfoArray.empty());

    auto migrated = std::make_shared<CBackupTask>();
    migrated->name = "Docs";
    migrated->bMigrateTask = true;
    EXPECT_EQ(migrated->loadFilePathListFromDB(), 0);
    ASSERT_EQ(migrated->sourceInfoArray.size(), 2u);
    EXPECT_EQ(migrated->sourceInfoArray[1].at("PathID"), "/home/u/Pictures");
    EXPECT_EQ(migrated->localDirList.size(), 2u);

    task_->name = "Unknown"; // not on the list
    EXPECT_FALSE(task_->uploadTaskList("Edit", "Unknown"));
    api().Logoff();
    EXPECT_NE(loaded->loadFilePathListFromDB(), 0);
    EXPECT_EQ(loaded->localDirList.size(), 2u);
    EXPECT_TRUE(SystemLog::capturedContains("Error: get task list."));
}

using Paths = std::vector<std::string>;

class BackupTaskScan : public BackupTaskRunThread {
protected:
    void SetUp() override {
        BackupTaskRunThread::SetUp();
        task_->pPrgBar = std::make_shared<TrueProgressCallback>();
    }
    void TearDown() override {
        CLoopItem::setFactory(nullptr);
        BackupTaskRunThread::TearDown();
    }

    // A tree with everything the filters leave out next to what they keep.
    void makeTree() {
        local("a.txt", "aaaa");
        local("a.tmp", "t");
        local(".hidden.txt", "h");
        local(".dotdir/x.txt", "x");
        local("Library/lib.txt", "l");
        local("Libraryx/inner.txt", "i"); // its name extends the excluded "Library"
        local("sub/b.txt", "bbbbbb");
        local("sub/cache1/c.txt", "c");
        local("sub/x?y/d.txt", "d");
        local("sub/e:f.txt", "e");
        local("sub/deep/g.txt", "gg");
        local("sub/" + std::string(90, ':'), "too long once encoded");
        ASSERT_EQ(::symlink("b.txt", at("sub/link").c_str()), 0);
        ASSERT_EQ(::mkfifo(at("sub/pipe").c_str(), 0600), 0);
        task_->localDirList = {src_};
        task_->filtedPath = {"Library", "cache*"};
        task_->filterExt = {"*.TMP"};
    }
    std::string at(const std::string& relative) const { return src_ + "/" + relative; }

    const std::string src_ = home_.file("src");
};

// Dotfiles, links and refused characters are kept; FIFOs and names too long are not.
Paths keptByTheWalks(const std::string& src) {
    auto at = [&](const char* relative) { return src + "/" + relative; };
    return {src,           at(".dotdir"),    at(".dotdir/x.txt"),   at(".hidden.txt"),
            at("Libraryx"), at("a.txt"),      at("sub"),             at("sub/b.txt"),
            at("sub/deep"), at("sub/deep/g.txt"), at("sub/e:f.txt"), at("sub/link"),
            at("sub/x?y"),  at("sub/x?y/d.txt")};
}

TEST_F(BackupTaskScan, RunWalkListsWhatTheFiltersKeep) {
    makeTree();
    ASSERT_TRUE(task_->CalculateBackupSize());
    // The prefix memory of the excluded "Library" also covers the files of "Libraryx".
    EXPECT_EQ(task_->scanFileArray, keptByTheWalks(src_));
    const uint64_t bytes = 4 + 6 + 2 + 1 + 1 + 1 + 1 + 5; // the link: its target's length
    EXPECT_EQ(std::pair(task_->fileTotalSize, task_->uiNeedSpace), std::pair(bytes, bytes));
    EXPECT_EQ(task_->scanFilterUserPath, at("sub/cache1"));
    EXPECT_EQ(task_->leftOutPaths, Paths{at("sub/" + std::string(90, ':'))});

    task_->taskType |= CBackupTask::SkipHiddenFlag; // leaves out every dot-name
    task_->scanFileArray.clear();
    delegate_.notices.clear();
    ASSERT_TRUE(task_->CalculateBackupSize());
    EXPECT_EQ(std::count_if(task_->scanFileArray.begin(), task_->scanFileArray.end(),
                            [](const std::string& p) { return p.find("/.") != std::string::npos; }),
              0);
    task_->taskType &= ~CBackupTask::SkipHiddenFlag;
    EXPECT_EQ(delegate_.notices, Paths{"finished"});
    EXPECT_FALSE(task_->bFinishScanForPrgBar);

    // Each missing server folder costs a bounded number of listings.
    EXPECT_LE(store_->totalLists(), 8);
}

// A source is never tested as a system item, an excluded one is left out, and a missing
// one gives nothing, in both walks.
TEST_F(BackupTaskScan, SourcesThemselvesAndExcludedSources) {
    local("one.txt", "1");
    makeFile("Library/l.txt", "l");
    makeFile(".dotsource/k.txt", "kk");
    task_->filtedPath = {"Library"};
    task_->localDirList = {at("one.txt"), home_.file("Library"), home_.file(".dotsource"),
                           home_.file("gone")};
    const Paths kept{at("one.txt"), home_.file(".dotsource"), home_.file(".dotsource/k.txt")};
    ASSERT_TRUE(task_->CalculateBackupSize());
    EXPECT_EQ(std::pair(task_->scanFileArray, task_->scanFilterUserPath),
              std::pair(kept, home_.file("Library")));
    task_->scanFileArray.clear();
    ASSERT_TRUE(task_->StartScanFile());
    EXPECT_EQ(std::pair(task_->scanFileArray, task_->fileTotalSize), std::pair(kept, uint64_t{3}));
}

TEST_F(BackupTaskScan,
       RunWalkReportsEveryHundredItemsStopsOnCancelAndCountsNothingInExcludedFolders) {
    for (int i = 0; i < 249; ++i)
        local("f" + std::to_string(1000 + i), "");
    task_->localDirList = {src_};
    ASSERT_TRUE(task_->CalculateBackupSize());
    EXPECT_EQ(delegate_.notices, (Paths{"rescan " + LoadString::Format("ReScanFile", src_, 100, 99),
                                        "rescan " + LoadString::Format("ReScanFile", src_, 200, 199),
                                        "finished"})); // the source is item 1
    EXPECT_EQ(task_->scanFileArray.size(), 250u);

    // Cancelled at the first notice: the walk ends, without the finishing notice.
    delegate_.notices.clear();
    delegate_.cancelAtRescan = true;
    task_->scanFileArray.clear();
    EXPECT_FALSE(task_->CalculateBackupSize());
    EXPECT_EQ(delegate_.notices.size(), 1u);
    EXPECT_EQ(task_->scanFileArray.size(), 100u);

    task_->pPrgBar->setBClickedCancel(false);
    task_->pPrgBar->setCancelled(true);
    EXPECT_FALSE(task_->CalculateBackupSize());

    // The files of "Libraryx" (under the excluded "Library" prefix) are no items.
    local("Library/l.txt", "l");
    for (int i = 0; i < 150; ++i)
        local("Libraryx/f" + std::to_string(1000 + i), "");
    task_->localDirList = {src_, at("Libraryx/f1000")};
    task_->filtedPath = {"Library"};
    task_->pPrgBar = std::make_shared<TrueProgressCallback>();
    delegate_.notices.clear();
    delegate_.cancelAtRescan = false;
    ASSERT_TRUE(task_->CalculateBackupSize());
    EXPECT_EQ(delegate_.notices,
              (Paths{"rescan " + LoadString::Format("ReScanFile", src_, 100, 98),
                     "rescan " + LoadString::Format("ReScanFile", src_, 200, 198), "finished"}));
    EXPECT_EQ(task_->nScanTotalFiles, 249);
}

// Presses Cancel after a chosen number of messages (never when negative).
struct FakeLoopDialog : test::LoopDialogStub {
    explicit FakeLoopDialog(int cancelAfter) : cancelAfter(cancelAfter) {}
    bool IsLoopCancel(Thread*) override {
        std::lock_guard lock(mutex);
        return cancelAfter >= 0 && static_cast<int>(messages.size()) >= cancelAfter;
    }
    bool SetScanFileLoopMessage(Thread*, const std::string& size, const std::string& count,
                                const std::string& path) override {
        std::lock_guard lock(mutex);
        messages.push_back(size + "|" + count + "|" + path);
        return true;
    }
    const int cancelAfter;
    std::mutex mutex;
    std::vector<std::string> messages; // read once the walk has ended
};

class BackupTaskScanThread : public BackupTaskScan {
protected:
    std::shared_ptr<FakeLoopDialog> installDialog(int cancelAfter) {
        auto dialog = std::make_shared<FakeLoopDialog>(cancelAfter);
        CLoopItem::setFactory([dialog] { return dialog; });
        return dialog;
    }
};

TEST_F(BackupTaskScanThread, InteractiveWalkFiltersFilesShowsTotalsAndCancelEmptiesTheList) {
    makeTree();
    auto dialog = installDialog(-1);
    Date before = clock_->now();
    ASSERT_TRUE(task_->StartScanFile());
    EXPECT_EQ(dialog->buttonType_, CLoopItem::ButtonScanFiles);
    EXPECT_EQ(clock_->now().timeIntervalSinceDate(before), 0.0); // no window to wait for
    ASSERT_EQ(dialog->messages.size(), 13u); // every listed item below the source
    EXPECT_EQ(dialog->messages.back(),
              Functions::FormatSizeToString(21) + "|8|" + at("sub/x?y/d.txt"));
    EXPECT_EQ(task_->scanFileArray, keptByTheWalks(src_));
    EXPECT_EQ(std::pair(task_->fileTotalSize, task_->uiNeedSpace), std::pair(21ul, 21ul));
    EXPECT_EQ(task_->nScanTotalFiles, 8);
    EXPECT_FALSE(task_->bCancleScanFile);
    EXPECT_EQ(store_->totalLists(), 0);
    EXPECT_EQ(task_->pThread, nullptr);

    auto cancelling = installDialog(2);
    EXPECT_FALSE(task_->StartScanFile());
    EXPECT_TRUE(task_->bCancleScanFile);
    EXPECT_TRUE(task_->scanFileArray.empty());
    EXPECT_EQ(cancelling->messages.size(), 2u);
}

using Entries = std::vector<std::string>;

TEST(BackupTaskFilters, FolderEntriesMatchAnyDepthAndBelowFileEntriesTheWholeNameInAnyCase) {
    Entries library{"", "Library"};
    EXPECT_TRUE(CBackupTask::RegexFun("/home/u/Library", library, true));
    EXPECT_TRUE(CBackupTask::RegexFun("/home/u/a/b/library", library, true)); // case ignored
    EXPECT_TRUE(CBackupTask::RegexFun("/home/u/Library/x/y", library, true));
    EXPECT_FALSE(CBackupTask::RegexFun("/home/u/Library/x.txt", library, false));
    EXPECT_FALSE(CBackupTask::RegexFun("/home/u/Libraryx", library, true));
    EXPECT_FALSE(CBackupTask::RegexFun("/home/u/MyLibrary", library, true));

    Entries cache{"cache*"};
    EXPECT_TRUE(CBackupTask::RegexFun("/home/u/cache", cache, true));
    EXPECT_TRUE(CBackupTask::RegexFun("/home/u/Cache-2/sub", cache, true));
    EXPECT_TRUE(CBackupTask::RegexFun("/home/u/cachedir/sub", cache, true));
    EXPECT_FALSE(CBackupTask::RegexFun("/home/u/mycache", cache, true));

    // '?' stands for exactly one character, a multi-byte one included.
    Entries oneChar{"v?"};
    EXPECT_TRUE(CBackupTask::RegexFun("/x/v1", oneChar, true));
    EXPECT_TRUE(CBackupTask::RegexFun("/x/vé", oneChar, true));
    EXPECT_FALSE(CBackupTask::RegexFun("/x/v12", oneChar, true));
    EXPECT_FALSE(CBackupTask::RegexFun("/x/v", oneChar, true));

    EXPECT_FALSE(CBackupTask::RegexFun("/x/anything", Entries{}, true));

    // File entries match the whole name.
    Entries tmp{"*.TMP", "Thumbs.db"};
    EXPECT_TRUE(CBackupTask::RegexFun("/home/u/a.tmp", tmp, false));
    EXPECT_TRUE(CBackupTask::RegexFun("/home/u/deep/er/A.Tmp", tmp, false));
    EXPECT_TRUE(CBackupTask::RegexFun("/home/u/THUMBS.DB", tmp, false));
    EXPECT_FALSE(CBackupTask::RegexFun("/home/u/a.tmp.txt", tmp, false));
    EXPECT_FALSE(CBackupTask::RegexFun("/home/u/xThumbs.db", tmp, false));
    EXPECT_FALSE(CBackupTask::RegexFun("a.tmp", tmp, false)); // no folder before it

    // Case is ignored in every script.
    Entries folders{"Кэш", "ΣΟΦΙΑ", "Ärger"};
    EXPECT_TRUE(CBackupTask::RegexFun("/home/u/кэш", folders, true));
    EXPECT_TRUE(CBackupTask::RegexFun("/home/u/σοφια", folders, true));
    EXPECT_FALSE(CBackupTask::RegexFun("/home/u/кэшx", folders, true));
    Entries files{"*.ΤΕΛΟΣ", "ǅemal"};
    EXPECT_TRUE(CBackupTask::RegexFun("/home/u/a.τελοσ", files, false)); // final sigma
    EXPECT_TRUE(CBackupTask::RegexFun("/home/u/ǆemal", files, false));
    EXPECT_FALSE(CBackupTask::RegexFun("/home/u/a.τελ", files, false));
}

TEST(BackupTaskFilters, OnlyNamesTooLongOnceEncodedAreLeftOut) {
    // Refused characters are encoded on the way, so their files are backed up.
    for (const char* storable : {"/a/b:c.txt", "/a/x?y/z", "/a/q\"t", "/a/b\\c", "/a/<x|*>", "/", ""})
        EXPECT_FALSE(CBackupTask::RegexBackupPathForServer(storable)) << storable;
    // 250 bytes fit; 90 colons take 270 once escaped.
    EXPECT_FALSE(CBackupTask::RegexBackupPathForServer("/a/" + std::string(250, 'n')));
    EXPECT_FALSE(CBackupTask::RegexBackupPathForServer("/a/" + std::string(85, ':')));
    std::string tooLong = "/a/" + std::string(90, ':') + "/b";
    EXPECT_TRUE(CBackupTask::RegexBackupPathForServer(tooLong));
    // The first component of a relative path is skipped like the root.
    EXPECT_FALSE(CBackupTask::RegexBackupPathForServer(std::string(90, ':') + "/c"));
}

using BackupTaskRecord = BackupTaskRunThread;

TEST_F(BackupTaskRecord, AddedSourcesAreRecordsInOrderWithDuplicates) {
    CBackupTask task;
    std::string folder = home_.file("photos");
    std::string file = home_.file("notes.txt");
    ASSERT_TRUE(FileSystem::createDirectories(folder));
    ASSERT_TRUE(FileSystem::writeFileAtomically(file, "x"));
    std::string later = home_.file("later");

    // "later" is added once while missing and once after it became a folder.
    task.AddSrcPathList({folder, file, home_.file("missing"), later});
    ASSERT_TRUE(FileSystem::createDirectories(later));
    task.AddSrcPath(later);

    ASSERT_EQ(task.localDirList.size(), 5u);
    EXPECT_EQ(task.localDirList[0].record(), SourceInfo::InitSourceInfoWith(folder, 1, true));
    EXPECT_EQ(task.localDirList[1].record(), SourceInfo::InitSourceInfoWith(file, 1, false));
    EXPECT_FALSE(task.localDirList[2].record().m_bFolder);
    EXPECT_TRUE(task.IsInSourceList(later) && task.IsInBackupList(file));
    // Exact and case-sensitive.
    EXPECT_FALSE(task.IsInSourceList(folder + "/") || task.IsInSourceList(home_.file("PHOTOS")));
    auto item = task.GetSrcItem(later);
    ASSERT_TRUE(item);
    EXPECT_FALSE(item->m_bFolder); // the first of the two entries
    EXPECT_FALSE(task.GetSrcItem("/nowhere"));

    // Even an identical list counts as different.
    std::vector<SourceInfo> same;
    for (const auto& entry : task.localDirList)
        same.push_back(entry.record());
    EXPECT_FALSE(task.IsSameSrcList(same) || task.IsSameSrcList({}));

    // A record is not a path: the first-path lookup gives "" and says why.
    EXPECT_EQ(task.GetFirstSrcPath(), "");
    EXPECT_TRUE(SystemLog::capturedContains("Error: CBackupTask::GetFirstSrcPath"));

    task.ReplaceLocalList({file});
    ASSERT_EQ(task.localDirList.size(), 1u);
    EXPECT_EQ(task.localDirList[0].record().m_strPath, file);
    task.ClearSrcList();
    EXPECT_TRUE(task.localDirList.empty());
    EXPECT_EQ(task.GetFirstSrcPath(), "");
}

// In a zone with summer time (from 2026-03-29); 2026-03-11 is a Wednesday.
using test::localDate;

class BackupTaskSchedule : public ::testing::Test {
protected:
    void SetUp() override {
        tzset();
        clock_ = std::make_shared<ManualClock>(localDate(2026, 3, 11, 9, 30));
        Clock::setShared(clock_);
        task_ = std::make_shared<CBackupTask>();
        task_->mBeginDate = localDate(2026, 1, 1, 0, 0);
    }
    void TearDown() override { Clock::setShared(nullptr); }
    void now(Date date) { clock_->set(date); }

    struct ZoneReread {
        ~ZoneReread() { tzset(); }
    } zoneReread_; // once the zone below is put back
    test::ScopedEnv zone_{"TZ", "Europe/Berlin"};
    std::shared_ptr<ManualClock> clock_;
    std::shared_ptr<CBackupTask> task_;
};

TEST_F(BackupTaskSchedule, SetTimeAndBeginDateByKind) {
    task_->taskType = CBackupTask::ScheduleDaily | 0x30; // flag bits must not matter
    auto next = [&](Date chosen, bool adjust = true) {
        task_->SetSchDating(chosen, adjust);
        return task_->mDating;
    };
    // Only the time of day counts.
    EXPECT_EQ(next(localDate(2025, 6, 2, 8, 0)), localDate(2026, 3, 12, 8, 0));
    EXPECT_EQ(next(localDate(2025, 6, 2, 10, 15, 7)), localDate(2026, 3, 11, 10, 15, 7));
    // A slot at the start of this minute has passed, and the next minute has not.
    now(localDate(2026, 3, 11, 8, 0, 40.5));
    EXPECT_EQ(next(localDate(2026, 3, 11, 8, 0)), localDate(2026, 3, 12, 8, 0));
    EXPECT_EQ(next(localDate(2026, 3, 11, 8, 1)), localDate(2026, 3, 11, 8, 1));
    // Without adjustment the date is taken as given.
    EXPECT_EQ(next(localDate(2020, 1, 1, 8, 0), false), localDate(2020, 1, 1, 8, 0));

    // Weekly counts weekdays from today.
    now(localDate(2026, 3, 11, 9, 30));
    task_->taskType = CBackupTask::ScheduleWeekly;
    // Monday chosen on a Wednesday; today's weekday later today; today's passed weekday.
    using P = std::pair<Date, Date>;
    for (auto [chosen, next] : {P{localDate(2026, 3, 9, 10, 0), localDate(2026, 3, 16, 10, 0)},
                                P{localDate(2026, 3, 4, 11, 0), localDate(2026, 3, 11, 11, 0)},
                                P{localDate(2026, 3, 4, 8, 0), localDate(2026, 3, 18, 8, 0)}}) {
        task_->SetSchDating(chosen, true);
        EXPECT_EQ(task_->mDating, next);
    }
    // Begin date on Friday, weekday Thursday: the Thursday lies before the begin date,
    // so the task goes to today's weekday a week on.
    task_->mDating = localDate(2026, 3, 5, 8, 0);
    task_->SetBeginDate(localDate(2026, 3, 13, 12, 0));
    EXPECT_EQ(task_->mDating, localDate(2026, 3, 18, 8, 0));

    // A begin date ten days ahead moves a daily task one day on only.
    now(localDate(2026, 3, 11, 7, 0));
    task_->taskType = CBackupTask::ScheduleDaily;
    task_->mDating = localDate(2026, 3, 11, 8, 0);
    task_->SetBeginDate(localDate(2026, 3, 21, 7, 0));
    EXPECT_EQ(task_->mDating, localDate(2026, 3, 12, 8, 0));

    // No schedule: a new begin date leaves the next run alone.
    task_->taskType = CBackupTask::ScheduleNone;
    task_->mDating = localDate(2026, 3, 1, 8, 0);
    task_->SetBeginDate(localDate(2026, 1, 1, 0, 0));
    EXPECT_EQ(task_->mDating, localDate(2026, 3, 1, 8, 0));

    // The range's one run happened after the slot: setting the time keeps it, a new
    // begin date recomputes it.
    task_->taskType = CBackupTask::ScheduleBetweenDates;
    task_->mEndDate = localDate(2026, 4, 1, 0, 0);
    task_->mBackupDate = localDate(2026, 3, 10, 8, 30);
    task_->SetSchDating(localDate(2026, 3, 10, 8, 0), true);
    EXPECT_EQ(task_->mDating, localDate(2026, 3, 10, 8, 0));
    task_->SetBeginDate(localDate(2026, 1, 1, 0, 0));
    EXPECT_EQ(task_->mDating, localDate(2026, 3, 11, 8, 0));
    // A success outside the range does not count.
    task_->mEndDate = localDate(2026, 3, 10, 0, 0);
    task_->SetSchDating(localDate(2026, 3, 10, 8, 0), true);
    EXPECT_EQ(task_->mDating, localDate(2026, 3, 11, 8, 0));
}

TEST_F(BackupTaskSchedule, NextDatingStepsOneWholePeriodOrCatchesUpFromToday) {
    const Date dstEve = localDate(2026, 3, 28, 8, 0);
    struct Case {
        const char* what;
        int32_t type;
        Date dating, now, next;
    };
    const Case cases[] = {
        // Within a day of the slot: exactly 86400 s on, even into summer time.
        {"within a day", CBackupTask::ScheduleDaily, dstEve, dstEve.addingTimeInterval(86'400),
         localDate(2026, 3, 29, 9, 0)},
        // A missed day or more: tomorrow at the slot's calendar time; day 32 rolls over.
        {"missed days", CBackupTask::ScheduleDaily, localDate(2026, 1, 28, 8, 0),
         localDate(2026, 1, 31, 10, 0), localDate(2026, 2, 1, 8, 0)},
        {"just past the next slot", CBackupTask::ScheduleDaily, localDate(2026, 3, 26, 8, 0),
         localDate(2026, 3, 27, 8, 0, 0.5), localDate(2026, 3, 28, 8, 0)},
        {"between dates", CBackupTask::ScheduleBetweenDates, localDate(2026, 3, 26, 8, 0),
         localDate(2026, 3, 29, 10, 0), localDate(2026, 3, 30, 8, 0)},
        // Weekly: one week on, or after a pause a week from today (today's weekday wins).
        {"weekly", CBackupTask::ScheduleWeekly, localDate(2026, 3, 9, 8, 0),
         localDate(2026, 3, 11, 9, 0), localDate(2026, 3, 16, 8, 0)},
        {"weekly after a pause", CBackupTask::ScheduleWeekly, localDate(2026, 3, 2, 8, 0),
         localDate(2026, 3, 12, 9, 0), localDate(2026, 3, 19, 8, 0)},
        {"none", CBackupTask::ScheduleNone, localDate(2026, 1, 1, 8, 0),
         localDate(2026, 3, 12, 9, 0), localDate(2026, 1, 1, 8, 0)},
    };
    for (const auto& c : cases) {
        task_->taskType = c.type;
        task_->mDating = c.dating;
        now(c.now);
        task_->SetNextDating();
        EXPECT_EQ(task_->mDating, c.next) << c.what;
    }
}

} // namespace

// Whole backup runs against the real local store and real WebDAV servers: first run, an
// unchanged rerun, a changed file with its old copy kept, a cancelled large file
// resumed next time, and faults (a missing source, failing uploads, a full account, a
// server that stops) that must end the run as a named failure within bounded attempts.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "common/WebDavTestServer.h"
#include "engine/task/CBackupTask.h"
#include "platform/framework/HeadlessMessagebox.h"
#include "platform/framework/NimboMessagebox.h"
#include "platform/framework/PathTreeController.h"
#include "platform/framework/ResultCodes.h"
#include "platform/framework/SessionFixture.h"
#include "platform/os/Clock.h"
#include "platform/os/SystemLog.h"
#include "platform/os/UrlOpener.h"
#include "platform/store/webdav/WebDavStore.h"
#include "support/CErrorLog.h"

using namespace cirrovault;

namespace {

constexpr double T = 1'650'000'000.0;

// Records the milestones of each run; can cancel the run when a chosen file is about
// to be sent for the second time, and notes the bytes a finished run resumed.
class RunObserver : public StowlineDelegate {
public:
    bool StowlineDelegateFun(const std::shared_ptr<CBackupTask>& task,
                             StowlineDelegateType type) override {
        std::lock_guard lock(mutex_);
        if (type != refreshProgressBarDelegate)
            types.push_back(type);
        if (type == refreshProgressBarDelegate && task && task->bInitUIPrgBar &&
            task->strWorkingFile == cancelOnSecondTry && ++tries == 2)
            task->CancelBackup();
        if (type == closeProgressBarViewDelegate && task && task->GetProgress())
            resumedBytes = task->GetProgress()->tempSize();
        if (type == refreshProgressBarDelegate && task && task->bInitUIPrgBar && onFile)
            onFile(task->strWorkingFile);
        return true;
    }

    std::function<void(const std::string&)> onFile; // before each file's upload

    std::mutex mutex_;
    std::vector<int> types;
    std::string cancelOnSecondTry;
    int tries = 0;
    uint64_t resumedBytes = 0;
};

// The store a run goes to: the local one, or a WebDAV server started for the test.
struct RunStore {
    std::string name;
    std::optional<test::WebDavTestServer::Kind> server;
};

void PrintTo(const RunStore& store, std::ostream* os) {
    *os << store.name;
}

class BackupRunThread : public test::SessionFixture, public testing::WithParamInterface<RunStore> {
protected:
    void SetUp() override {
        SessionFixture::SetUp();
        raw_ = local_;
        if (GetParam().server) {
            server_ = std::make_unique<test::WebDavTestServer>(
                *GetParam().server, home_.file("server"),
                std::map<std::string, std::string>{{"alice", "secret"}});
            raw_ = std::make_shared<WebDavStore>(server_->url("{user}/"));
            store_ = std::make_shared<test::CountingStore>(raw_);
            api().SetBackend(store_);
            ASSERT_EQ(api().Logon("alice", "secret"), ResultCode::Success);
            store_->resetCounts();
        }
        clock_ = std::make_shared<ManualClock>(Date(T));
        Clock::setShared(clock_);
        dialogs_ = std::make_shared<HeadlessMessagebox>();
        NimboMessagebox::setPresenter(dialogs_);
        UrlOpener::setOpenerProgram("true");
        task_ = std::make_shared<CBackupTask>();
        task_->name = "Projects";
        task_->serverPath = "\\Backups\\Projects";
        task_->localDirList = {home_.file("work")};
        task_->SetDelegate(&observer_);
    }
    void TearDown() override {
        UrlOpener::setOpenerProgram("");
        NimboMessagebox::setPresenter(nullptr);
        Clock::setShared(nullptr);
        SessionFixture::TearDown();
    }
    void run() {
        observer_.types.clear();
        task_->StartBackup(false);
        std::shared_ptr<Thread> worker = task_->pBackupTaskThread;
        task_->checkFinshedBackup();
        worker->join();
        clock_->advance(3600);
    }
    std::string serverOf(const std::string& relative) {
        std::string path = "\\Backups\\Projects\\work\\" + relative;
        for (auto& c : path)
            if (c == '/')
                c = '\\';
        return path;
    }
    // Every file in the tree below folder on the store.
    std::vector<PathInfo> storedFiles(const std::string& folder) {
        std::vector<PathInfo> all;
        std::vector<PathInfo> files;
        tree().RefreshSvrPath("\\");
        tree().GetSubList(folder, all, false, true);
        for (const auto& item : all)
            if (!item.bFolder)
                files.push_back(item);
        return files;
    }

    std::unique_ptr<test::WebDavTestServer> server_;
    std::shared_ptr<StoreBackend> raw_; // the store behind the counting one
    std::shared_ptr<ManualClock> clock_;
    std::shared_ptr<HeadlessMessagebox> dialogs_;
    RunObserver observer_;
    std::shared_ptr<CBackupTask> task_;
};

TEST_P(BackupRunThread, FirstRunUploadsTheTreeAndAnUnchangedRerunSendsNothing) {
    std::vector<std::string> relatives;
    for (int d = 0; d < 6; ++d)
        for (int s = 0; s < 4; ++s)
            for (int f = 0; f < 10; ++f) {
                std::string rel = "d" + std::to_string(d) + "/s" + std::to_string(s) + "/f" +
                                  std::to_string(f) + ".txt";
                makeFile("work/" + rel, "content of " + rel, T - 86400 + d * 100 + f + 0.5);
                relatives.push_back(rel);
            }
    run();

    EXPECT_EQ(task_->mTaskState, CBackupTask::StateSucceeded);
    EXPECT_EQ(observer_.types, (std::vector<int>{1, 3, 5, 0, 2}));
    EXPECT_EQ(store_->putCount(), 240);
    for (const auto& rel : relatives) {
        StoreItem item;
        ASSERT_EQ(raw_->stat(serverOf(rel), item), ResultCode::Success) << rel;
        EXPECT_EQ(item.size, ("content of " + rel).size());
        auto status = FileSystem::status(home_.file("work/" + rel));
        ASSERT_TRUE(status);
        EXPECT_EQ(static_cast<int64_t>(item.modifyTime.timeIntervalSince1970()),
                  static_cast<int64_t>(status->modifyTime.timeIntervalSince1970()));
    }
    TransferInfo fetch;
    fetch.setSvrFile(serverOf("d5/s3/f9.txt"));
    fetch.setLocFile(home_.file("fetched.txt"));
    ASSERT_EQ(api().DownloadFile(fetch), ResultCode::Success);
    EXPECT_EQ(readFile(home_.file("fetched.txt")), "content of d5/s3/f9.txt");

    auto events = CErrorLog::GetErrorList();
    ASSERT_TRUE(events);
    size_t starts = 0, finishes = 0;
    for (const auto& line : *events) {
        starts += line.find("Projects|") == 0 && line.find("Backup started.") != std::string::npos;
        finishes += line.find("Backup finished successfully.") != std::string::npos;
    }
    EXPECT_EQ(starts, 1u);
    EXPECT_EQ(finishes, 1u);

    run();
    EXPECT_EQ(task_->mTaskState, CBackupTask::StateSucceeded);
    EXPECT_EQ(store_->putCount(), 240);
    EXPECT_EQ(task_->uiTaskCurrentUploadSize, 0u);
}

TEST_P(BackupRunThread, ChangedFileIsUploadedAndItsOldCopyKept) {
    makeFile("work/notes.txt", "first words", T - 7200);
    makeFile("work/other.txt", "untouched", T - 7200);
    run();
    ASSERT_EQ(store_->putCount(), 2);

    makeFile("work/notes.txt", "second words, longer", T - 60);
    run();
    EXPECT_EQ(task_->mTaskState, CBackupTask::StateSucceeded);
    EXPECT_EQ(store_->putCount(), 3);
    StoreItem item;
    ASSERT_EQ(raw_->stat(serverOf("notes.txt"), item), ResultCode::Success);
    EXPECT_EQ(item.size, std::string("second words, longer").size());

    std::string history = task_->getSvrHistoryFolder(false);
    ASSERT_FALSE(history.empty());
    auto versions = storedFiles(history);
    ASSERT_EQ(versions.size(), 1u);
    EXPECT_NE(versions[0].name.find("notes"), std::string::npos);
    EXPECT_EQ(versions[0].iSize, std::string("first words").size());
}

TEST_P(BackupRunThread, CancelledLargeFileResumesFromItsPartNextRun) {
    std::string big(3 << 20, 'x');
    for (size_t i = 0; i < big.size(); i += 4096)
        big[i] = static_cast<char>('a' + (i / 4096) % 26);
    std::string path = makeFile("work/big.bin", big, T - 600);
    const uint64_t kept = 1 << 20;
    store_->dropConnectionInNextPut(kept);
    observer_.cancelOnSecondTry = path;
    run();

    EXPECT_EQ(task_->mTaskState, CBackupTask::StateCancelled);
    EXPECT_EQ(task_->iBackupRet, 6u);
    StoreItem item;
    EXPECT_NE(raw_->stat(serverOf("big.bin"), item), ResultCode::Success);

    observer_.cancelOnSecondTry.clear();
    run();
    EXPECT_EQ(task_->mTaskState, CBackupTask::StateSucceeded);
    // A server that cannot continue a part gets the file again whole.
    EXPECT_EQ(observer_.resumedBytes, raw_->capabilities().resumableUpload ? kept : 0u);
    TransferInfo fetch;
    fetch.setSvrFile(serverOf("big.bin"));
    fetch.setLocFile(home_.file("fetched.bin"));
    ASSERT_EQ(api().DownloadFile(fetch), ResultCode::Success);
    EXPECT_TRUE(readFile(home_.file("fetched.bin")) == big);
}

// The event-log lines of the task that contain the text.
size_t eventLogLinesWith(const std::string& text) {
    size_t n = 0;
    for (const auto& line : CErrorLog::GetErrorList().value_or(std::vector<std::string>{}))
        n += line.find("Projects|") == 0 && line.find(text) != std::string::npos;
    return n;
}

TEST_P(BackupRunThread, FaultsEndTheRunAsANamedFailureAndNoCopyClaimsToBeCurrentWrongly) {
    using Op = FaultInjectingStore::Operation;
    const std::vector<std::string> names = {"a.txt", "b.txt", "c.txt", "d.txt"};
    for (const auto& n : names)
        makeFile("work/" + n, "first " + n, T - 7200);
    // A source that is gone fails the run by name; the other source is still backed up.
    const std::string gone = home_.file("gone");
    task_->localDirList = {home_.file("work"), gone};
    run();
    EXPECT_EQ(task_->mTaskState, CBackupTask::StateFailed);
    EXPECT_NE(task_->strErrLog.value_or("").find(gone), std::string::npos);
    EXPECT_EQ(eventLogLinesWith(gone), 1u);
    EXPECT_EQ(eventLogLinesWith("Backup finished successfully."), 0u);
    EXPECT_EQ(store_->putCount(), 4);
    task_->localDirList = {home_.file("work")};

    // Every upload fails as a passing fault would: the retries are bounded (21 attempts a
    // pass, three passes without progress), then the run ends failed and says so.
    for (const auto& n : names)
        makeFile("work/" + n, "second, longer " + n, T - 600);
    store_->failOperation(Op::Put, ResultCode::Failure);
    run();
    store_->clearFaults();
    EXPECT_EQ(task_->mTaskState, CBackupTask::StateFailed);
    EXPECT_LE(store_->putCount(), 4 + 4 * 21 * 3);
    EXPECT_EQ(eventLogLinesWith("Gave up after repeated attempts"), 1u);

    // A refusal (a read-only folder) is not asked again: one attempt per file.
    const int32_t putsBefore = store_->putCount();
    store_->failOperation(Op::Put, ResultCode::Forbidden);
    run();
    store_->clearFaults();
    EXPECT_EQ(task_->mTaskState, CBackupTask::StateFailed);
    EXPECT_EQ(store_->putCount() - putsBefore, 4);
    EXPECT_GE(eventLogLinesWith("does not allow this change"), 4u);

    // The account fills up after one file: the run ends failed, and every stored copy
    // whose time says current holds exactly the local bytes.
    store_->failPutWithSpaceLimit(2);
    run();
    EXPECT_EQ(task_->mTaskState, CBackupTask::StateFailed);
    EXPECT_EQ(task_->iBackupRet, static_cast<uint64_t>(ResultCode::SpaceLimit));
    auto storedMatchesWhenCurrent = [&](bool allCurrent) {
        for (const auto& n : names) {
            auto local = FileSystem::status(home_.file("work/" + n));
            ASSERT_TRUE(local);
            StoreItem item;
            bool stored = raw_->stat(serverOf(n), item) == ResultCode::Success;
            bool current = stored && static_cast<int64_t>(item.modifyTime.timeIntervalSince1970()) ==
                                         static_cast<int64_t>(local->modifyTime.timeIntervalSince1970());
            EXPECT_TRUE(current || !allCurrent) << n;
            if (!current)
                continue;
            TransferInfo fetch;
            fetch.setSvrFile(serverOf(n));
            fetch.setLocFile(home_.file("fetched-" + n));
            ASSERT_EQ(api().DownloadFile(fetch), ResultCode::Success) << n;
            EXPECT_EQ(readFile(home_.file("fetched-" + n)), readFile(home_.file("work/" + n))) << n;
        }
    };
    storedMatchesWhenCurrent(false);
    run();
    EXPECT_EQ(task_->mTaskState, CBackupTask::StateSucceeded);
    storedMatchesWhenCurrent(true);

    if (GetParam().name != "Apache")
        return;
    // The server stops in the middle of a run: a failure, ended within seconds.
    for (const auto& n : names)
        makeFile("work/" + n, "third, longer still " + n, T - 60);
    observer_.onFile = [&](const std::string& file) {
        if (file.ends_with("b.txt"))
            server_->stop();
    };
    auto started = std::chrono::steady_clock::now();
    run();
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(20));
    EXPECT_EQ(task_->mTaskState, CBackupTask::StateFailed);
    EXPECT_NE(task_->iBackupRet, 0u);
    EXPECT_GE(eventLogLinesWith("did not succeed"), 1u);
}

TEST_P(BackupRunThread, SlowFailingUploadsStopOnTheClock) {
    if (GetParam().server)
        GTEST_SKIP() << "the bounds are the engine's; one store shows them";
    for (const auto& n : {"a.txt", "b.txt", "c.txt", "d.txt"})
        makeFile(std::string("work/") + n, n, T - 600);
    // Each failing attempt takes a minute: a file stops after five minutes of tries, not
    // after 21 attempts, and the run after three passes without progress.
    observer_.onFile = [&](const std::string&) { clock_->advance(60); };
    store_->failOperation(FaultInjectingStore::Operation::Put, ResultCode::Failure);
    run();
    EXPECT_EQ(task_->mTaskState, CBackupTask::StateFailed);
    EXPECT_LE(store_->putCount(), 4 * 2 * 5);
    EXPECT_EQ(eventLogLinesWith("Gave up after repeated attempts"), 1u);
}

INSTANTIATE_TEST_SUITE_P(Stores, BackupRunThread,
                         testing::Values(RunStore{"Local", std::nullopt},
                                         RunStore{"Apache", test::WebDavTestServer::Kind::Apache},
                                         RunStore{"Lighttpd",
                                                  test::WebDavTestServer::Kind::Lighttpd},
                                         RunStore{"LighttpdWithoutProperties",
                                                  test::WebDavTestServer::Kind::
                                                      LighttpdWithoutProperties}),
                         [](const testing::TestParamInfo<RunStore>& info) { return info.param.name; });

} // namespace

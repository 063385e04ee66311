// Whole backup runs on the local store and real WebDAV servers, down to the bytes stored.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "common/EngineSession.h"
#include "common/WebDavTestServer.h"
#include "platform/store/webdav/WebDavStore.h"

using namespace cirrovault;

namespace {

constexpr double T = 1'650'000'000.0;

// The store a run goes to: the local one, or a WebDAV server started for the test.
struct RunStore {
    std::string name;
    std::optional<test::WebDavTestServer::Kind> server;
    test::WebDavTestServer::Account account = test::WebDavTestServer::Account::FolderPerUser;
};

void PrintTo(const RunStore& store, std::ostream* os) { *os << store.name; }

// As the task's delegate: notes the bytes a finished run resumed, calls onFile_ before uploads.
class BackupRunThread : public test::EngineSession, public testing::WithParamInterface<RunStore>,
                        public StowlineDelegate {
protected:
    bool StowlineDelegateFun(const std::shared_ptr<CBackupTask>& task,
                             StowlineDelegateType type) override {
        std::lock_guard lock(mutex_);
        if (type == closeProgressBarViewDelegate && task && task->GetProgress())
            resumedBytes_ = task->GetProgress()->tempSize();
        if (type == refreshProgressBarDelegate && task && task->bInitUIPrgBar && onFile_)
            onFile_(task->strWorkingFile);
        return true;
    }
    void SetUp() override {
        EngineSession::SetUp();
        raw_ = local_;
        if (GetParam().server) {
            server_ = std::make_unique<test::WebDavTestServer>(
                *GetParam().server, home_.file("server"),
                std::map<std::string, std::string>{{"alice", "secret"}}, GetParam().account);
            raw_ = std::make_shared<WebDavStore>(server_->accountUrl());
            store_ = std::make_shared<test::CountingStore>(raw_);
            api().SetBackend(store_);
            ASSERT_EQ(api().Logon("alice", "secret"), ResultCode::Success);
            store_->resetCounts();
        }
        Clock::setShared(clock_);
        task_ = std::make_shared<CBackupTask>();
        task_->name = "Projects";
        task_->serverPath = "\\Backups\\Projects";
        task_->localDirList = {home_.file("work")};
        task_->SetDelegate(this);
    }
    void run() {
        runToEnd(*task_);
        clock_->advance(3600);
    }
    // One run; the state it ended in.
    int32_t ranTo() {
        run();
        return task_->mTaskState;
    }
    // One run; the puts it made.
    int sent() {
        const int before = store_->putCount();
        run();
        return store_->putCount() - before;
    }
    std::string serverOf(const std::string& relative) {
        std::string path = "\\Backups\\Projects\\work\\" + relative;
        std::replace(path.begin(), path.end(), '/', '\\');
        return path;
    }
    bool exactTimes() const { return raw_->capabilities().modifyTimePrecision < 1; }
    size_t eventsOfTask(const std::string& text) { return eventsContaining(text, "Projects|"); }

    std::unique_ptr<test::WebDavTestServer> server_;
    std::shared_ptr<StoreBackend> raw_; // the store behind the counting one
    std::shared_ptr<ManualClock> clock_ = std::make_shared<ManualClock>(Date(T));
    std::function<void(const std::string&)> onFile_;
    std::mutex mutex_;
    uint64_t resumedBytes_ = 0;
    std::shared_ptr<CBackupTask> task_;
};

TEST_P(BackupRunThread, FirstRunUploadsTheTreeAnUnchangedRerunNothingAndAChangeItsFileByTheTimeWindow) {
    std::map<std::string, double> relatives; // each with its time
    for (int d = 0; d < 6; ++d)
        for (int s = 0; s < 4; ++s)
            for (int f = 0; f < 10; ++f) {
                std::string rel = fmt::format("d{}/s{}/f{}.txt", d, s, f);
                relatives[rel] = T - 86400 + d * 100 + f + 0.5;
                makeFile("work/" + rel, "content of " + rel, relatives[rel]);
            }
    makeFile("work/same.txt", "four", T - 7200);
    makeFile("work/hour.txt", "four", T - 7200);
    run();

    EXPECT_EQ(task_->mTaskState, CBackupTask::StateSucceeded);
    EXPECT_EQ(store_->putCount(), 242);
    for (const auto& [rel, time] : relatives) {
        StoreItem item;
        ASSERT_EQ(raw_->stat(serverOf(rel), item), ResultCode::Success) << rel;
        EXPECT_EQ(std::make_pair(item.size, static_cast<int64_t>(item.modifyTime.timeIntervalSince1970())),
                  std::make_pair(("content of " + rel).size(), static_cast<int64_t>(time)));
    }
    EXPECT_EQ(fetch(serverOf("d5/s3/f9.txt")), "content of d5/s3/f9.txt");

    EXPECT_EQ(sent(), 0);
    EXPECT_EQ(task_->mTaskState, CBackupTask::StateSucceeded);
    EXPECT_EQ(task_->uiTaskCurrentUploadSize, 0u);

    // Grown, saved 2 s after the stored copy's time: a change everywhere, the old copy kept
    // as a version. The same size a second later: only a store that keeps exact times can
    // tell. A clock moved by one hour, same size: no change on any store.
    makeFile("work/d0/s0/f0.txt", "second words, longer", T - 86400 + 2.5);
    makeFile("work/same.txt", "FOUR", T - 7199);
    makeFile("work/hour.txt", "four", T - 3600);
    EXPECT_EQ(sent(), exactTimes() ? 2 : 1);
    EXPECT_EQ(task_->mTaskState, CBackupTask::StateSucceeded);
    EXPECT_EQ(fetch(serverOf("d0/s0/f0.txt")), "second words, longer");
    EXPECT_EQ(fetch(serverOf("same.txt")), exactTimes() ? "FOUR" : "four");
    std::vector<PathInfo> items; // below the history folder
    tree().RefreshSvrPath("\\");
    tree().GetSubList(task_->getSvrHistoryFolder(false), items, false, true);
    std::multiset<std::string> kept;
    for (const auto& item : items)
        if (!item.bFolder)
            kept.insert(fetch(item.path));
    std::multiset<std::string> expected = {"content of d0/s0/f0.txt"};
    if (exactTimes())
        expected.insert("four");
    EXPECT_EQ(kept, expected);
    EXPECT_EQ(sent(), 0); // and no later run sends anything more
    EXPECT_FALSE(SystemLog::capturedContains("secret")); // the password never reaches the log
}

TEST_P(BackupRunThread, CancelledLargeFileResumesFromItsPartNextRun) {
    std::string big(3 << 20, 'x');
    for (size_t i = 0; i < big.size(); i += 4096)
        big[i] = static_cast<char>('a' + (i / 4096) % 26);
    makeFile("work/big.bin", big, T - 600);
    const uint64_t kept = 1 << 20;
    store_->dropConnectionInNextPut(kept);
    // The retry after the drop hangs until the cancel, so no bytes of it reach the store.
    bool armed = true;
    store_->afterPut = [&](const std::string&, int64_t code) {
        if (code != ResultCode::Success && std::exchange(armed, false))
            store_->hangNextPut();
    };
    std::thread canceller([&] {
        store_->waitUntilHanging();
        task_->CancelBackup();
    });
    run();
    canceller.join();
    store_->afterPut = nullptr;

    EXPECT_EQ(task_->mTaskState, CBackupTask::StateCancelled);
    EXPECT_EQ(task_->iBackupRet, 6u);
    StoreItem item;
    EXPECT_NE(raw_->stat(serverOf("big.bin"), item), ResultCode::Success);

    EXPECT_EQ(ranTo(), CBackupTask::StateSucceeded);
    // A server that cannot continue a part gets the file again whole.
    EXPECT_EQ(resumedBytes_, raw_->capabilities().resumableUpload ? kept : 0u);
    EXPECT_TRUE(fetch(serverOf("big.bin")) == big);
}

TEST_P(BackupRunThread, FilesRewrittenDuringRunsOrWhileReadAreNeitherLostNorLeftStale) {
    constexpr int kFiles = 12;
    auto name = [](int i) { return "live/f" + std::to_string(i) + ".bin"; };
    auto body = [](int i, int generation) {
        // Every generation has its own size, so no time window can hide it.
        return std::string(4096 + 7 * generation + i, static_cast<char>('a' + generation % 26));
    };
    for (int i = 0; i < kFiles; ++i)
        makeFile("work/" + name(i), body(i, 0), T - 1000);

    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int generation = 1; !stop; ++generation)
            for (int i = 0; i < kFiles && !stop; ++i) {
                std::ofstream(home_.file("work/" + name(i)), std::ios::binary)
                    << body(i, generation);
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
    });
    for (int round = 0; round < 6; ++round) {
        std::thread canceller;
        if (round % 2 == 1) // every other run is cut short, as by a crash or a stop
            canceller = std::thread([&] {
                std::this_thread::sleep_for(std::chrono::milliseconds(15));
                task_->CancelBackup();
            });
        run();
        if (canceller.joinable())
            canceller.join();
    }
    stop = true;
    writer.join();

    EXPECT_EQ(ranTo(), CBackupTask::StateSucceeded); // the quiet run
    for (int i = 0; i < kFiles; ++i)
        EXPECT_TRUE(fetch(serverOf(name(i))) == readFile(home_.file("work/" + name(i))))
            << name(i);

    // A file rewritten just after each upload has read it, same size and within the time
    // window, is sent again.
    std::string path = makeFile("work/doc.txt", "version 1", T - 600);
    int changes = 1, generation = 1;
    store_->afterPut = [&](const std::string& stored, int64_t) {
        if (stored == serverOf("doc.txt") && changes > 0) { // other files go on other threads
            --changes;
            ++generation;
            makeFile("work/doc.txt", "version " + std::to_string(generation % 10),
                     T - 601 + generation);
        }
    };
    run();
    EXPECT_EQ(fetch(serverOf("doc.txt")), "version 2");
    EXPECT_EQ(eventsOfTask("doc.txt\" kept changing"), 0u);
    EXPECT_EQ(sent(), 0);

    // A file that changes at every read: a bounded number of sends, a line in the event
    // log, and a stored copy whose time vouches for nothing, so the next run sends it.
    changes = 1000;
    makeFile("work/doc.txt", "version 0", T - 500);
    EXPECT_EQ(sent(), 3);
    EXPECT_EQ(task_->mTaskState, CBackupTask::StateSucceeded);
    EXPECT_EQ(eventsOfTask(path + "\" kept changing"), 1u);
    StoreItem item;
    ASSERT_EQ(raw_->stat(serverOf("doc.txt"), item), ResultCode::Success);
    EXPECT_LT(item.modifyTime.timeIntervalSince1970(), T - 86400);

    changes = 0;
    run();
    EXPECT_EQ(fetch(serverOf("doc.txt")), readFile(path));
    EXPECT_EQ(sent(), 0);
}

TEST_P(BackupRunThread, FaultsEndTheRunAsANamedFailureAfterBoundedRetriesAndNoCopyClaimsToBeCurrentOrDurableWrongly) {
    using Op = FaultInjectingStore::Operation;
    const std::vector<std::string> names = {"a.txt", "b.txt", "c.txt", "d.txt"};
    for (const auto& n : names)
        makeFile("work/" + n, "first " + n, T - 7200);
    // A source that is gone fails the run by name; the other source is still backed up.
    const std::string gone = home_.file("gone");
    task_->localDirList = {home_.file("work"), gone};
    EXPECT_EQ(ranTo(), CBackupTask::StateFailed);
    EXPECT_NE(task_->strErrLog.value_or("").find(gone), std::string::npos);
    EXPECT_EQ(eventsOfTask(gone), 1u);
    EXPECT_EQ(eventsOfTask("Backup finished successfully."), 0u);
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
    EXPECT_EQ(eventsOfTask("Gave up after repeated attempts"), 1u);
    if (!GetParam().server) { // the bounds are the engine's; one store shows them
        // Each failing attempt takes a minute: a file stops after five minutes of tries,
        // not after 21 attempts, and the run after three passes without progress.
        onFile_ = [&](const std::string&) { clock_->advance(60); };
        store_->failOperation(Op::Put, ResultCode::Failure);
        EXPECT_LE(sent(), 4 * 2 * 5);
        store_->clearFaults();
        onFile_ = nullptr;
        EXPECT_EQ(task_->mTaskState, CBackupTask::StateFailed);
        EXPECT_EQ(eventsOfTask("Gave up after repeated attempts"), 2u);
    }

    // A refusal (a read-only folder) is not asked again: one attempt per file.
    store_->failOperation(Op::Put, ResultCode::Forbidden);
    EXPECT_EQ(sent(), 4);
    store_->clearFaults();
    EXPECT_EQ(task_->mTaskState, CBackupTask::StateFailed);
    EXPECT_GE(eventsOfTask("does not allow this change"), 4u);

    // The account fills up after one file: the run ends failed, and every stored copy
    // whose time says current holds exactly the local bytes.
    store_->failPutWithSpaceLimit(2);
    EXPECT_EQ(ranTo(), CBackupTask::StateFailed);
    EXPECT_EQ(task_->iBackupRet, static_cast<uint64_t>(ResultCode::SpaceLimit));
    auto storedMatchesWhenCurrent = [&](bool allCurrent) {
        for (const auto& n : names) {
            auto local = FileSystem::status(home_.file("work/" + n));
            StoreItem item;
            bool current = local && raw_->stat(serverOf(n), item) == ResultCode::Success &&
                           static_cast<int64_t>(item.modifyTime.timeIntervalSince1970()) ==
                               static_cast<int64_t>(local->modifyTime.timeIntervalSince1970());
            EXPECT_TRUE(current || !allCurrent) << n;
            EXPECT_TRUE(!current || fetch(serverOf(n)) == readFile(home_.file("work/" + n))) << n;
        }
    };
    storedMatchesWhenCurrent(false);
    EXPECT_EQ(ranTo(), CBackupTask::StateSucceeded);
    storedMatchesWhenCurrent(true);

    if (!GetParam().server) {
        // A run is done only once the store made what it sent durable: a sync that fails
        // fails the run, the next run syncs what is still pending, and a run that stored
        // nothing asks for no sync (a failing one does not touch it).
        const size_t done = eventsOfTask("Backup finished successfully.");
        makeFile("work/a.txt", "fourth", T - 30);
        store_->failOperation(Op::Flush, ResultCode::Failure);
        EXPECT_EQ(ranTo(), CBackupTask::StateFailed);
        // Nothing new to send, but the last run's file is not durable yet.
        EXPECT_EQ(ranTo(), CBackupTask::StateFailed);
        EXPECT_EQ(eventsOfTask("Backup finished successfully."), done);
        store_->clearFaults();
        EXPECT_EQ(ranTo(), CBackupTask::StateSucceeded);
        EXPECT_EQ(eventsOfTask("Backup finished successfully."), done + 1);
        store_->failOperation(Op::Flush, ResultCode::Failure);
        EXPECT_EQ(ranTo(), CBackupTask::StateSucceeded);
        makeFile("work/a.txt", "fifth", T - 20);
        EXPECT_EQ(ranTo(), CBackupTask::StateFailed);
        store_->clearFaults();
    }

    if (GetParam().name != "Apache")
        return;
    // The server stops in the middle of a run: a failure, ended within seconds.
    for (const auto& n : names)
        makeFile("work/" + n, "third, longer still " + n, T - 60);
    onFile_ = [&](const std::string& file) {
        if (file.ends_with("b.txt"))
            server_->stop();
    };
    auto started = std::chrono::steady_clock::now();
    run();
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(20));
    EXPECT_EQ(task_->mTaskState, CBackupTask::StateFailed);
    EXPECT_NE(task_->iBackupRet, 0u);
    EXPECT_GE(eventsOfTask("did not succeed"), 1u);
}

using Server = test::WebDavTestServer::Kind;
constexpr auto AtRoot = test::WebDavTestServer::Account::AtRoot;

INSTANTIATE_TEST_SUITE_P(
    Stores, BackupRunThread,
    testing::Values(
        RunStore{"Local", std::nullopt}, RunStore{"Apache", Server::Apache},
        RunStore{"ApacheAtRoot", Server::Apache, AtRoot}, RunStore{"Lighttpd", Server::Lighttpd},
        RunStore{"LighttpdWithoutProperties", Server::LighttpdWithoutProperties},
        RunStore{"Rclone", Server::Rclone}, RunStore{"RcloneAtRoot", Server::Rclone, AtRoot},
        RunStore{"Sabre", Server::Sabre}, RunStore{"SabreAtRoot", Server::Sabre, AtRoot}),
    [](const testing::TestParamInfo<RunStore>& info) { return info.param.name; });

} // namespace

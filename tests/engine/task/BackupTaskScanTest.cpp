#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>

#include <sys/stat.h>
#include <unistd.h>

#include "common/EngineLoopDialog.h"
#include "engine/task/CBackupTask.h"
#include "platform/framework/Functions.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/SessionFixture.h"
#include "platform/os/Clock.h"

using namespace cirrovault;

namespace {

using Paths = std::vector<std::string>;

// Records the notices as "rescan <info>" or "finished" by the progress marks of the
// time; may cancel at a rescan notice.
struct RecordingDelegate : StowlineDelegate {
    bool StowlineDelegateFun(const std::shared_ptr<CBackupTask>& task,
                             StowlineDelegateType) override {
        std::string rescan = "rescan " + task->strRescanInfoForPrgbar.value_or("");
        notices.push_back(task->bRescanForPrgBar ? rescan
                          : task->bFinishScanForPrgBar ? "finished" : "other");
        if (cancelAtRescan && task->bRescanForPrgBar)
            task->pPrgBar->setBClickedCancel(true);
        return true;
    }
    std::vector<std::string> notices;
    bool cancelAtRescan = false;
};

class BackupTaskScan : public test::SessionFixture {
protected:
    void SetUp() override {
        SessionFixture::SetUp();
        task_ = std::make_shared<CBackupTask>();
        task_->name = "Docs";
        task_->serverPath = "\\Backup";
        task_->pPrgBar = std::make_shared<TrueProgressCallback>();
        task_->SetDelegate(&delegate_);
        src_ = home_.file("src");
    }

    // A tree with everything the filters leave out next to what they keep.
    void makeTree() {
        file("a.txt", "aaaa");
        file("a.tmp", "t");
        file(".hidden.txt", "h");
        file(".dotdir/x.txt", "x");
        file("Library/lib.txt", "l");
        file("Libraryx/inner.txt", "i"); // its name extends the excluded "Library"
        file("sub/b.txt", "bbbbbb");
        file("sub/cache1/c.txt", "c");
        file("sub/x?y/d.txt", "d");
        file("sub/e:f.txt", "e");
        file("sub/deep/g.txt", "gg");
        file("sub/" + std::string(90, ':'), "too long once encoded");
        ASSERT_EQ(::symlink("b.txt", at("sub/link").c_str()), 0);
        ASSERT_EQ(::mkfifo(at("sub/pipe").c_str(), 0600), 0);
        task_->localDirList = {src_};
        task_->filtedPath = {"Library", "cache*"};
        task_->filterExt = {"*.TMP"};
    }
    std::string file(const std::string& relative, const std::string& content) {
        return makeFile("src/" + relative, content);
    }
    std::string at(const std::string& relative) const { return src_ + "/" + relative; }

    std::shared_ptr<CBackupTask> task_;
    RecordingDelegate delegate_;
    std::string src_;
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
    file("one.txt", "1");
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
        file("f" + std::to_string(1000 + i), "");
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
    file("Library/l.txt", "l");
    for (int i = 0; i < 150; ++i)
        file("Libraryx/f" + std::to_string(1000 + i), "");
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
    void SetUp() override {
        BackupTaskScan::SetUp();
        Clock::setShared(clock_); // any wait shows as time gone by
    }
    void TearDown() override {
        CLoopItem::setFactory(nullptr);
        Clock::setShared(nullptr);
        BackupTaskScan::TearDown();
    }
    std::shared_ptr<FakeLoopDialog> installDialog(int cancelAfter) {
        auto dialog = std::make_shared<FakeLoopDialog>(cancelAfter);
        CLoopItem::setFactory([dialog] { return dialog; });
        return dialog;
    }
    std::shared_ptr<ManualClock> clock_ = std::make_shared<ManualClock>();
};

// The interactive walk leaves out filtered files by itself and never asks the service.
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

} // namespace

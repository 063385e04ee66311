#include <gtest/gtest.h>

#include <memory>

#include "common/LocalDate.h"
#include "common/TempHome.h"
#include "engine/task/CBackupTask.h"
#include "platform/os/Clock.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"

using namespace cirrovault;

namespace {

Date localDate(int year, int month, int day) {
    return test::localDate(year, month, day, 0, 0);
}

class BackupTaskRecord : public ::testing::Test {
protected:
    void SetUp() override {
        clock_ = std::make_shared<ManualClock>(Date(1'700'000'123.5));
        Clock::setShared(clock_);
        SystemLog::startCapture();
    }
    void TearDown() override {
        SystemLog::stopCapture();
        Clock::setShared(nullptr);
    }
    std::shared_ptr<ManualClock> clock_;
    test::TempHome home_;
};

} // namespace

TEST_F(BackupTaskRecord, NewTaskHasTheDefaults) {
    auto task = std::make_shared<CBackupTask>();
    Date now = clock_->now();
    EXPECT_EQ(task->mTaskState, 0);
    EXPECT_EQ(task->uiMaxVersion, 10u);
    EXPECT_EQ(task->mEndDate, localDate(2099, 1, 1));
    EXPECT_EQ((std::vector<Date>{task->mBackupDate, task->mLastDating, task->mResumeDate,
                                 task->mLastRunDate}),
              std::vector<Date>(4, localDate(1971, 1, 1)));
    EXPECT_EQ(task->mBeginDate, now.addingTimeInterval(-2'592'000));
    EXPECT_EQ(task->mDating, now);
    EXPECT_FALSE(task->mPCName.empty());
    EXPECT_FALSE(task->strTempFolder.has_value());
    EXPECT_TRUE(task->localDirList.empty());
    EXPECT_FALSE(SystemLog::capturedContains("Error"));
}

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
    EXPECT_TRUE(task.IsInSourceList(later));
    EXPECT_TRUE(task.IsInBackupList(file));
    EXPECT_FALSE(task.IsInSourceList(folder + "/"));
    EXPECT_FALSE(task.IsInSourceList(home_.file("PHOTOS"))); // exact, case-sensitive
    auto item = task.GetSrcItem(later);
    ASSERT_TRUE(item);
    EXPECT_FALSE(item->m_bFolder); // the first of the two entries
    EXPECT_FALSE(task.GetSrcItem("/nowhere"));

    // Even an identical list counts as different.
    std::vector<SourceInfo> same;
    for (const auto& entry : task.localDirList)
        same.push_back(entry.record());
    EXPECT_FALSE(task.IsSameSrcList(same));
    EXPECT_FALSE(task.IsSameSrcList({}));

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

TEST_F(BackupTaskRecord, PlainPathEntriesAnswerNeutralAndLog) {
    CBackupTask task;
    task.localDirList = {"/home/u/Documents", "/home/u/Music"};

    EXPECT_FALSE(task.IsInSourceList("/home/u/Documents"));
    EXPECT_FALSE(task.IsInBackupList("/home/u/Documents"));
    EXPECT_EQ(SystemLog::capturedCount("Error: CBackupTask::IsInSourceList()"), 2u);
    EXPECT_FALSE(task.GetSrcItem("/home/u/Music"));
    EXPECT_EQ(SystemLog::capturedCount("Error: CBackupTask::GetSrcItem()"), 1u);
    EXPECT_FALSE(task.IsSameSrcList({SourceInfo::InitSourceInfoWith("/home/u/Documents", 1, true),
                                     SourceInfo::InitSourceInfoWith("/home/u/Music", 1, true)}));
    EXPECT_EQ(task.GetFirstSrcPath(), "/home/u/Documents");

    // A record ahead of the plain paths is found before the walk reaches them.
    SystemLog::startCapture();
    task.localDirList.insert(task.localDirList.begin(),
                             SourceInfo::InitSourceInfoWith("/home/u/Pictures", 1, true));
    EXPECT_TRUE(task.IsInSourceList("/home/u/Pictures"));
    EXPECT_FALSE(SystemLog::capturedContains("Error"));

    task.localDirList = {std::string()};
    EXPECT_EQ(task.GetFirstSrcPath(), "");

    // Renames only answer: yes, unless the task is being deleted.
    task.name = "Work";
    EXPECT_TRUE(task.RenameTask("Home"));
    EXPECT_EQ(task.name, "Work");
    EXPECT_TRUE(task.RenamePath("/a", "/b"));
    task.bDeleting = true;
    EXPECT_FALSE(task.RenamePath("/a", "/b"));
}

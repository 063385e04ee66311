#include <gtest/gtest.h>

#include "common/TempHome.h"
#include "engine/task/CBackupTask.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"

using namespace cirrovault;

namespace {

class BackupTaskRecord : public ::testing::Test {
protected:
    void SetUp() override { SystemLog::startCapture(); }
    void TearDown() override { SystemLog::stopCapture(); }
    test::TempHome home_;
};

} // namespace

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


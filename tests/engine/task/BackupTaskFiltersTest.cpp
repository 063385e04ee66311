#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "common/TempHome.h"
#include "engine/task/CBackupTask.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"

using namespace cirrovault;

namespace {

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

struct BackupTaskRecord : ::testing::Test {
    void SetUp() override { SystemLog::startCapture(); }
    void TearDown() override { SystemLog::stopCapture(); }
    test::TempHome home_;
};

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

} // namespace

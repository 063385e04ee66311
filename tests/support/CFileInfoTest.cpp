#include <gtest/gtest.h>

#include "common/TempHome.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"
#include "support/CFileInfo.h"

#include <sys/stat.h>
#include <unistd.h>

using namespace cirrovault;

TEST(CFileInfoServerPaths, ParentNameAndDriveRoots) {
    EXPECT_EQ(CFileInfo::getServerParentFolder("\\A"), "");
    EXPECT_EQ(CFileInfo::getServerParentFolder("A"), "");
    EXPECT_EQ(CFileInfo::getServerParentFolder(""), "");
    EXPECT_EQ(CFileInfo::getServerParentFolder("C:\\Docs"), "C:");
    EXPECT_EQ(CFileInfo::getServerParentFolder("\\Backup\\Docs\\a.txt"), "\\Backup\\Docs");

    EXPECT_EQ(CFileInfo::GetServerFileName("C:\\"), "");
    EXPECT_EQ(CFileInfo::GetWINLocalParentPath("C:\\"), "");
    EXPECT_EQ(CFileInfo::GetServerFileName("C:\\x"), "x");
    EXPECT_EQ(CFileInfo::GetWINLocalParentPath("C:\\x"), "C:");
    EXPECT_EQ(CFileInfo::GetServerFileName(""), "");
    EXPECT_EQ(CFileInfo::GetServerFileName("\\Backup\\"), "");
    EXPECT_EQ(CFileInfo::GetServerFileName("plain"), "plain"); // no "\" at all: the whole text
    EXPECT_EQ(CFileInfo::GetWINLocalParentPath(""), "");
}

TEST(CFileInfoServerPaths, AppendKeepsDoubledSeparatorAndEmptyGivesEmpty) {
    EXPECT_EQ(CFileInfo::serverPathAppend("\\a\\", "b"), "\\a\\b");
    EXPECT_EQ(CFileInfo::serverPathAppend("\\a", "b"), "\\a\\b");
    EXPECT_EQ(CFileInfo::serverPathAppend("\\a", "\\b"), "\\a\\\\b");
    EXPECT_EQ(CFileInfo::serverPathAppend("", "b"), "");
    EXPECT_EQ(CFileInfo::serverPathAppend("\\a", ""), "");

    EXPECT_EQ(CFileInfo::removeServerPathBackslash("\\"), "\\");
    EXPECT_EQ(CFileInfo::removeServerPathBackslash("\\a\\\\"), "\\a\\");
    EXPECT_EQ(CFileInfo::removeServerPathBackslash("\\a"), "\\a");
    EXPECT_EQ(CFileInfo::removeServerPathBackslash(""), "");

    EXPECT_EQ(CFileInfo::convertServerPathToMacPath("\\a\\b"), "/a/b");
    EXPECT_EQ(CFileInfo::convertMacPathToServerPath("/a/b"), "\\a\\b");
    EXPECT_EQ(CFileInfo::convertMacPathToServerPath(""), "");
}

TEST(CFileInfoServerPaths, SubFolderCutsByLengthOnly) {
    EXPECT_EQ(CFileInfo::getServerSubFolder("\\Backup\\Docs\\x", "\\Backup"), "Docs\\x");
    // The prefix is not checked, only its length counts.
    EXPECT_EQ(CFileInfo::getServerSubFolder("\\Zzzzzz\\Docs", "\\Backup"), "Docs");
    EXPECT_EQ(CFileInfo::getServerSubFolder("", "\\Backup"), "");
    EXPECT_EQ(CFileInfo::getServerSubFolder("\\Backup", "\\Backup"), "");
    EXPECT_EQ(CFileInfo::getServerSubFolder("\\B", "\\Backup\\Long"), ""); // past the end
}

TEST(CFileInfoServerPaths, ExtensionComparison) {
    EXPECT_TRUE(CFileInfo::compareServerPathExtension("\\a\\b.txt", "txt"));
    EXPECT_FALSE(CFileInfo::compareServerPathExtension("\\a\\b.txt", "TXT"));
    EXPECT_FALSE(CFileInfo::compareServerPathExtension("\\a\\b.txt", ".txt"));
    EXPECT_FALSE(CFileInfo::compareServerPathExtension("\\a.d\\b", "d"));
    EXPECT_FALSE(CFileInfo::compareServerPathExtension("\\a\\b.", ""));
    EXPECT_FALSE(CFileInfo::compareServerPathExtension("", "txt"));
    EXPECT_TRUE(CFileInfo::compareServerPathExtension("\\a\\b.tar.gz", "gz"));
}

TEST(CFileInfoLocalPaths, ParentSubFolderAndJoin) {
    EXPECT_EQ(CFileInfo::getMacParentFolder("/A"), "/");
    EXPECT_EQ(CFileInfo::getMacParentFolder("A"), "");
    EXPECT_EQ(CFileInfo::getMacParentFolder("/a/b/"), "/a/b");
    EXPECT_EQ(CFileInfo::getMacParentFolder("/a/b"), "/a");

    EXPECT_EQ(CFileInfo::getMacSubFolder("/Users/a/Docs", "/"), "Users/a/Docs");
    EXPECT_EQ(CFileInfo::getMacSubFolder("/Users/a/Docs", "/Users"), "a/Docs");
    EXPECT_EQ(CFileInfo::getMacSubFolder("", "/Users"), "");

    EXPECT_EQ(CFileInfo::MacPathAppend("/a", "b"), "/a/b");
    EXPECT_EQ(CFileInfo::MacPathAppend("/a/", "/b"), "/a/b");
    EXPECT_EQ(CFileInfo::MacPathAppend("/", "b"), "/b");
    EXPECT_EQ(CFileInfo::MacPathAppend("/a", ""), "/a/");
    // A later join absorbs the trailing slash.
    EXPECT_EQ(CFileInfo::MacPathAppend(CFileInfo::MacPathAppend("/a", ""), "c"), "/a/c");
}

TEST(CFileInfoLocalPaths, NamesExtensionsAndTrims) {
    EXPECT_EQ(CFileInfo::getMacFileName("/x/report.txt", false), "report.txt");
    EXPECT_EQ(CFileInfo::getMacFileName("/x/report.txt", true), "report");
    EXPECT_EQ(CFileInfo::getMacFileName("/x/dir/", false), "dir");
    EXPECT_EQ(CFileInfo::getMacFileName("/x/.profile", true), ".profile");
    EXPECT_EQ(CFileInfo::getMacFileName("/x/a.tar.gz", true), "a.tar");

    EXPECT_EQ(CFileInfo::removeBackslash("/x/report.txt"), "/x/report");
    EXPECT_EQ(CFileInfo::removeBackslash("/x.d/report"), "/x.d/report");
    EXPECT_EQ(CFileInfo::removeBackslash(""), std::nullopt);
    EXPECT_EQ(CFileInfo::removeFirstBackslash("/"), "/");
    EXPECT_EQ(CFileInfo::removeFirstBackslash("/a/b"), "a/b");
    EXPECT_EQ(CFileInfo::removeFirstBackslash("a/b"), "a/b");
    EXPECT_EQ(CFileInfo::removeFirstBackslash(""), std::nullopt);

    EXPECT_EQ(CFileInfo::pathTrim(" \t/a b\t "), "/a b");
    EXPECT_EQ(CFileInfo::pathTrim("\n/a\n"), "\n/a\n");
    EXPECT_EQ(CFileInfo::pathTrim(" \t "), "");
}

TEST(CFileInfoFolders, ApplicationFoldersFollowTheStringTable) {
    test::TempHome home;
    EXPECT_EQ(CFileInfo::getCurrentUserApplicationPath(), home.dataHome());
    std::string product = CFileInfo::getProductFolderPath();
    EXPECT_EQ(product, home.dataHome() + "/Cirrovault/Cirrovault Online Backup");

    // The temp folder is made, the returned path below it is not.
    std::string temp = CFileInfo::getTempPath("\\Backup\\Docs", true);
    EXPECT_EQ(temp, product + "/Temp/Backup/Docs");
    EXPECT_TRUE(FileSystem::isDirectory(product + "/Temp"));
    EXPECT_FALSE(FileSystem::exists(temp));

    EXPECT_TRUE(CFileInfo::CreateInAppDatePath(""));
    EXPECT_TRUE(FileSystem::isDirectory(CFileInfo::getDataFolderPath()));
    EXPECT_TRUE(CFileInfo::CreateInAppDatePath("acct/logs"));
    EXPECT_TRUE(FileSystem::isDirectory(CFileInfo::getDataFolderPath() + "/acct/logs"));
    EXPECT_TRUE(CFileInfo::CreateInAppDatePath("acct/logs")); // already there
}

TEST(CFileInfoFolders, TempPathFailsWhenTheFolderCannotBeMade) {
    test::TempHome home;
    // A file where the product folder should be blocks the temp folder.
    FileSystem::createDirectories(home.dataHome() + "/Cirrovault");
    ASSERT_TRUE(FileSystem::createEmptyFile(CFileInfo::getProductFolderPath()));
    EXPECT_EQ(CFileInfo::getTempPath("\\a", false), "");
}

TEST(CFileInfoFiles, CreateQueryRenameAndDelete) {
    test::TempHome home;
    std::string folder = home.file("work/deep/er");
    EXPECT_TRUE(CFileInfo::CreateSubDir(folder));
    EXPECT_TRUE(CFileInfo::CreateSubDir(folder)); // already a folder
    EXPECT_TRUE(CFileInfo::isDirectory(folder));
    EXPECT_FALSE(CFileInfo::isFile(folder));

    std::string file = folder + "/a.txt";
    EXPECT_FALSE(CFileInfo::CreateFile(""));
    EXPECT_TRUE(CFileInfo::CreateFile(file));
    EXPECT_TRUE(CFileInfo::CreateFile(file)); // already a file
    EXPECT_FALSE(CFileInfo::CreateFile(folder)); // a folder is in the way
    ASSERT_TRUE(FileSystem::writeFileAtomically(file, "12345"));
    EXPECT_TRUE(CFileInfo::isFile(file));
    EXPECT_EQ(CFileInfo::sizeOfFile(file), 5u);
    EXPECT_EQ(CFileInfo::sizeOfFile(folder + "/missing"), 0u);
    EXPECT_TRUE(CFileInfo::IsfileExistsAtPath(file, true)); // the flag does not narrow
    EXPECT_TRUE(CFileInfo::IsfileExistsAtPath(folder, false));
    EXPECT_FALSE(CFileInfo::IsfileExistsAtPath("", false));

    // A link to a file is neither a file nor a folder: the link is not followed.
    std::string link = folder + "/link";
    ASSERT_EQ(::symlink(file.c_str(), link.c_str()), 0);
    EXPECT_FALSE(CFileInfo::isFile(link));
    EXPECT_FALSE(CFileInfo::isDirectory(link));
    EXPECT_FALSE(CFileInfo::isAliasFile(link));

    std::string other = folder + "/b.txt";
    EXPECT_FALSE(CFileInfo::renameFile(file, ""));
    EXPECT_TRUE(CFileInfo::renameFile(file, other));
    ASSERT_TRUE(CFileInfo::CreateFile(file));
    EXPECT_FALSE(CFileInfo::renameFile(file, other)); // the target exists

    SystemLog::startCapture();
    EXPECT_TRUE(CFileInfo::deleteFile(other));
    EXPECT_FALSE(CFileInfo::deleteFile(other));
    EXPECT_EQ(SystemLog::capturedCount("Error:File not exists"), 1u);
    EXPECT_TRUE(CFileInfo::deleteFile(home.file("work"))); // a folder with its contents
    EXPECT_FALSE(FileSystem::exists(home.file("work")));
    SystemLog::stopCapture();
}

TEST(CFileInfoFiles, DeleteThatFailsIsLogged) {
    if (::geteuid() == 0)
        GTEST_SKIP() << "root may delete from a read-only folder";
    test::TempHome home;
    std::string folder = home.file("locked");
    ASSERT_TRUE(CFileInfo::CreateSubDir(folder));
    ASSERT_TRUE(CFileInfo::CreateFile(folder + "/f"));
    ASSERT_EQ(::chmod(folder.c_str(), 0555), 0);
    SystemLog::startCapture();
    EXPECT_FALSE(CFileInfo::deleteFile(folder + "/f"));
    EXPECT_EQ(SystemLog::capturedCount("Error: failed to delete file"), 1u);
    SystemLog::stopCapture();
    ::chmod(folder.c_str(), 0755);
}

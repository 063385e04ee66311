#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include "common/LocalDate.h"
#include "common/TempHome.h"
#include "platform/os/FileSystem.h"
#include "support/CFileAttributes.h"
#include "support/CFileInfo.h"
#include "support/FMLocFileManager.h"
#include "support/FileAttributeNode.h"

using namespace cirrovault;

class LocalItems : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(FileSystem::createDirectories(folder));
        ASSERT_TRUE(FileSystem::writeFileAtomically(file, "0123456789"));
        ASSERT_TRUE(FileSystem::setModifyTime(file, Date(1'700'000'000.25)));
        ASSERT_EQ(::symlink(file.c_str(), link.c_str()), 0);
    }

    test::TempHome home;
    std::string folder = home.file("items");
    std::string file = folder + "/a.txt";
    std::string link = folder + "/link";
};

TEST_F(LocalItems, AttributesOfFileFolderLinkAndMissingPath) {
    CFileAttributes onFile(file);
    EXPECT_FALSE(onFile.bFile); // nothing read before asking
    ASSERT_TRUE(onFile.getFileAttibutes());
    EXPECT_TRUE(onFile.bFile);
    EXPECT_FALSE(onFile.bFolder);
    EXPECT_EQ(onFile.fileSize, 10);
    EXPECT_EQ(onFile.fileType, "Regular");
    ASSERT_TRUE(onFile.modifyDate);
    EXPECT_EQ(*onFile.modifyDate, Date(1'700'000'000.25));
    ASSERT_TRUE(onFile.createDate);
    EXPECT_LE(*onFile.createDate, *onFile.modifyDate);

    CFileAttributes onFolder(folder);
    ASSERT_TRUE(onFolder.getFileAttibutes());
    EXPECT_TRUE(onFolder.bFolder);
    EXPECT_FALSE(onFolder.bFile);
    EXPECT_EQ(onFolder.fileSize, 0);

    CFileAttributes onLink(link);
    ASSERT_TRUE(onLink.getFileAttibutes());
    EXPECT_FALSE(onLink.bFile);
    EXPECT_FALSE(onLink.bFolder);
    EXPECT_EQ(onLink.fileSize, 0);
    EXPECT_EQ(onLink.fileType, "SymbolicLink");

    CFileAttributes missing(folder + "/none");
    EXPECT_FALSE(missing.getFileAttibutes());
    EXPECT_FALSE(missing.bFile);
    EXPECT_FALSE(missing.bFolder);
    EXPECT_FALSE(missing.modifyDate);
    EXPECT_FALSE(missing.createDate);
    EXPECT_EQ(missing.fileType, "");
}

TEST(FMLocFileManagerSize, DisplayBoundaries) {
    EXPECT_EQ(FMLocFileManager::FormatFileSize(std::nullopt), "");
    EXPECT_EQ(FMLocFileManager::FormatFileSize(0), "");
    EXPECT_EQ(FMLocFileManager::FormatFileSize(1), "1 bytes");
    EXPECT_EQ(FMLocFileManager::FormatFileSize(1023), "1023 bytes");
    EXPECT_EQ(FMLocFileManager::FormatFileSize(1024), "1 KB");
    EXPECT_EQ(FMLocFileManager::FormatFileSize(1536), "2 KB");
    EXPECT_EQ(FMLocFileManager::FormatFileSize(1048575), "1024 KB"); // under 1024 KiB, rounded
    EXPECT_EQ(FMLocFileManager::FormatFileSize(1048576), "1.0 MB");
    EXPECT_EQ(FMLocFileManager::FormatFileSize(5242880), "5.0 MB");
    EXPECT_EQ(FMLocFileManager::FormatFileSize(1073741824), "1.00 GB");
    EXPECT_EQ(FMLocFileManager::FormatFileSize(1099511627776), "1024.00 GB");
}

TEST_F(LocalItems, BrowserRowsKindsAndVisibility) {
    ASSERT_TRUE(FileSystem::createEmptyFile(folder + "/tool"));
    ASSERT_EQ(::chmod((folder + "/tool").c_str(), 0755), 0);
    EXPECT_EQ(FMLocFileManager::CopyKindString(folder), "Folder");
    EXPECT_EQ(FMLocFileManager::CopyKindString(file), "Document");
    EXPECT_EQ(FMLocFileManager::CopyKindString(link), "Alias");
    EXPECT_EQ(FMLocFileManager::CopyKindString(folder + "/tool"), "Application");
    EXPECT_EQ(FMLocFileManager::CopyKindString(folder + "/none"), "");
    EXPECT_EQ(FMLocFileManager::CopyDispalyName(file), "a.txt");
    EXPECT_EQ(FMLocFileManager::CopyDispalyName(folder + "/none"), "");

    EXPECT_EQ(FMLocFileManager::GetFileSize(file), 10u);
    EXPECT_EQ(FMLocFileManager::GetFileSize(link), 10u); // the link leads to the file
    EXPECT_EQ(FMLocFileManager::GetFileSize(folder + "/none"), std::nullopt);
    EXPECT_EQ(FMLocFileManager::GetCurSubItemCount(folder), 3u);
    EXPECT_EQ(FMLocFileManager::GetCurSubItemCount(""), 0u);
    EXPECT_EQ(FMLocFileManager::GetCurSubPathURLArray(folder + "/none"), std::nullopt);

    EXPECT_FALSE(FMLocFileManager::ShouldDisplay(folder + "/.hidden"));
    EXPECT_TRUE(FMLocFileManager::ShouldDisplay(folder + "/Docs"));
    EXPECT_TRUE(FMLocFileManager::IsInvisible(folder + "/Docs"));

    FMLocFileManager manager;
    auto row = manager.GetFileAttribute(file);
    EXPECT_EQ(row["Name"], "a.txt");
    EXPECT_EQ(row["Path"], file);
    EXPECT_EQ(row["Kind"], "Document");
    EXPECT_EQ(row["Type"], "Regular");
    EXPECT_EQ(row["Size"], "10 bytes");
    EXPECT_EQ(row["DateModified"], manager.formatDate(Date(1'700'000'000.25)));
    EXPECT_EQ(manager.GetFileAttribute(folder)["Size"], "--");
    EXPECT_TRUE(manager.GetFileAttribute(folder + "/none").empty());

    FileAttributeNode node(row["Name"], row["DateModified"], row["Size"], row["Kind"], folder, file, "");
    EXPECT_EQ(node.fileParentPath, folder);
    EXPECT_FALSE(node.bSelect);
}

TEST(FMLocFileManagerDates, MediumDateShortTime) {
    FMLocFileManager manager;
    EXPECT_EQ(manager.formatDate(test::localDate(2024, 1, 5, 15, 4)), "Jan 5, 2024, 3:04 PM");
    EXPECT_EQ(manager.formatDate(test::localDate(2024, 1, 5, 0, 4)), "Jan 5, 2024, 12:04 AM");
}

TEST_F(LocalItems, FileOperations) {
    std::string target = home.file("target");
    ASSERT_TRUE(FileSystem::createDirectories(target));
    ASSERT_TRUE(FileSystem::createDirectories(folder + "/sub/deeper"));
    ASSERT_TRUE(FileSystem::writeFileAtomically(folder + "/sub/deeper/x", "x"));

    EXPECT_TRUE(FMLocFileManager::doFileOperation(folder + "/sub", "copy", target));
    EXPECT_EQ(FileSystem::readFile(target + "/sub/deeper/x"), "x");
    EXPECT_FALSE(FMLocFileManager::doFileOperation(folder + "/sub", "copy", target)); // exists
    EXPECT_FALSE(FMLocFileManager::doFileOperation(folder + "/sub", "copy", ""));

    EXPECT_TRUE(FMLocFileManager::doFileOperation(file, "copy", target));
    EXPECT_EQ(FileSystem::status(target + "/a.txt")->modifyTime, Date(1'700'000'000.25));

    EXPECT_TRUE(FMLocFileManager::doFileOperation(target + "/a.txt", "destroy"));
    EXPECT_FALSE(FileSystem::exists(target + "/a.txt"));
    EXPECT_TRUE(FMLocFileManager::doFileOperation(file, "move", target));
    EXPECT_TRUE(FileSystem::exists(target + "/a.txt"));
    EXPECT_FALSE(FileSystem::exists(file));

    // Recycling keeps the item in the user's trash with a note of where it was.
    EXPECT_TRUE(FMLocFileManager::doFileOperation(folder + "/sub", "recycle"));
    EXPECT_FALSE(FileSystem::exists(folder + "/sub"));
    std::string trash = home.dataHome() + "/Trash";
    EXPECT_TRUE(FileSystem::isDirectory(trash + "/files/sub"));
    auto note = FileSystem::readFile(trash + "/info/sub.trashinfo");
    ASSERT_TRUE(note);
    EXPECT_NE(note->find("Path=" + folder + "/sub\n"), std::string::npos);
    ASSERT_TRUE(FileSystem::createDirectories(folder + "/sub"));
    EXPECT_TRUE(FMLocFileManager::doFileOperation(folder + "/sub", "recycle"));
    EXPECT_TRUE(FileSystem::isDirectory(trash + "/files/sub.2")); // a second one of that name

    EXPECT_FALSE(FMLocFileManager::doFileOperation(target, "compress"));
    EXPECT_FALSE(FMLocFileManager::doFileOperation(folder + "/none", "destroy"));
}

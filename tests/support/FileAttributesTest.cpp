#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include "common/LocalDate.h"
#include "common/Answers.h"
#include "common/TempHome.h"
#include "platform/os/FileSystem.h"
#include "support/CFileAttributes.h"
#include "support/FMLocFileManager.h"

using namespace cirrovault;
using test::answers;

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

// What getFileAttibutes answered and read, in one line.
std::string attributes(CFileAttributes& item) {
    bool read = item.getFileAttibutes();
    return std::to_string(read) + " file " + std::to_string(item.bFile) + " folder " + std::to_string(item.bFolder) +
           " size " + std::to_string(item.fileSize) + " " + item.fileType + " dates " +
           std::to_string(item.modifyDate.has_value()) + std::to_string(item.createDate.has_value());
}

TEST_F(LocalItems, AttributesOfFileFolderLinkAndMissingPath) {
    CFileAttributes onFile(file), onFolder(folder), onLink(link), missing(folder + "/none");
    EXPECT_EQ(attributes(onFile), "1 file 1 folder 0 size 10 Regular dates 11");
    EXPECT_EQ(*onFile.modifyDate, Date(1'700'000'000.25));
    EXPECT_LE(*onFile.createDate, *onFile.modifyDate);
    EXPECT_EQ(attributes(onFolder), "1 file 0 folder 1 size 0 Directory dates 11");
    EXPECT_EQ(attributes(onLink), "1 file 0 folder 0 size 0 SymbolicLink dates 11");
    EXPECT_EQ(attributes(missing), "0 file 0 folder 0 size 0  dates 00");
}

TEST(FMLocFileManagerDisplay, SizeBoundariesAndMediumDateShortTime) {
    EXPECT_EQ(FMLocFileManager::FormatFileSize(std::nullopt), "");
    // Just under 1024 KiB still rounds to KB.
    const std::pair<uint64_t, const char*> sizes[] = {
        {0, ""}, {1, "1 bytes"}, {1023, "1023 bytes"}, {1024, "1 KB"}, {1536, "2 KB"}, {1048575, "1024 KB"},
        {1048576, "1.0 MB"}, {5242880, "5.0 MB"}, {1073741824, "1.00 GB"}, {1099511627776, "1024.00 GB"}};
    for (const auto& [size, text] : sizes)
        EXPECT_EQ(FMLocFileManager::FormatFileSize(size), text) << size;
    FMLocFileManager manager;
    EXPECT_EQ(manager.formatDate(test::localDate(2024, 1, 5, 15, 4)), "Jan 5, 2024, 3:04 PM");
    EXPECT_EQ(manager.formatDate(test::localDate(2024, 1, 5, 0, 4)), "Jan 5, 2024, 12:04 AM");
}

TEST_F(LocalItems, BrowserRowsKindsAndVisibility) {
    ASSERT_TRUE(FileSystem::createEmptyFile(folder + "/tool"));
    ASSERT_EQ(::chmod((folder + "/tool").c_str(), 0755), 0);
    std::string kinds;
    for (const auto& path : {folder, file, link, folder + "/tool", folder + "/none"})
        kinds += FMLocFileManager::CopyKindString(path) + ",";
    EXPECT_EQ(kinds, "Folder,Document,Alias,Application,,");
    EXPECT_EQ(FMLocFileManager::CopyDispalyName(file) + "|" + FMLocFileManager::CopyDispalyName(folder + "/none"),
              "a.txt|");

    // The link leads to the file.
    EXPECT_EQ((std::vector{FMLocFileManager::GetFileSize(file), FMLocFileManager::GetFileSize(link),
                           FMLocFileManager::GetFileSize(folder + "/none")}),
              (std::vector<std::optional<uint64_t>>{10, 10, std::nullopt}));
    EXPECT_EQ((std::pair{FMLocFileManager::GetCurSubItemCount(folder), FMLocFileManager::GetCurSubItemCount("")}),
              (std::pair{3u, 0u}));
    EXPECT_EQ(FMLocFileManager::GetCurSubPathURLArray(folder + "/none"), std::nullopt);
    EXPECT_FALSE(FMLocFileManager::ShouldDisplay(folder + "/.hidden"));
    EXPECT_TRUE(FMLocFileManager::ShouldDisplay(folder + "/Docs"));

    FMLocFileManager manager;
    auto row = manager.GetFileAttribute(file);
    EXPECT_EQ(row["Name"] + "|" + row["Path"] + "|" + row["Kind"] + "|" + row["Type"] + "|" + row["Size"],
              "a.txt|" + file + "|Document|Regular|10 bytes");
    EXPECT_EQ(row["DateModified"], manager.formatDate(Date(1'700'000'000.25)));
    EXPECT_EQ(manager.GetFileAttribute(folder)["Size"], "--");
    EXPECT_TRUE(manager.GetFileAttribute(folder + "/none").empty());
}

TEST_F(LocalItems, FileOperations) {
    auto op = [](const std::string& path, const char* operation, const std::string& target = "") {
        return FMLocFileManager::doFileOperation(path, operation, target);
    };
    std::string target = home.file("target"), sub = folder + "/sub";
    ASSERT_TRUE(FileSystem::createDirectories(target) && FileSystem::createDirectories(sub + "/deeper"));
    ASSERT_TRUE(FileSystem::writeFileAtomically(sub + "/deeper/x", "x"));

    // A second copy finds the first there; no target, no copy.
    EXPECT_EQ(answers({op(sub, "copy", target), op(sub, "copy", target), op(sub, "copy")}), "100");
    EXPECT_EQ(FileSystem::readFile(target + "/sub/deeper/x"), "x");
    EXPECT_TRUE(op(file, "copy", target));
    EXPECT_EQ(FileSystem::status(target + "/a.txt")->modifyTime, Date(1'700'000'000.25));
    EXPECT_EQ(answers({op(target + "/a.txt", "destroy"), FileSystem::exists(target + "/a.txt"), op(file, "move", target),
                       FileSystem::exists(target + "/a.txt"), FileSystem::exists(file)}),
              "10110");

    // Recycling keeps the item in the user's trash with a note of where it was.
    std::string trash = home.dataHome() + "/Trash";
    EXPECT_EQ(answers({op(sub, "recycle"), FileSystem::exists(sub), FileSystem::isDirectory(trash + "/files/sub")}), "101");
    EXPECT_NE(FileSystem::readFile(trash + "/info/sub.trashinfo").value_or("").find("Path=" + sub + "\n"),
              std::string::npos);
    ASSERT_TRUE(FileSystem::createDirectories(sub));
    EXPECT_TRUE(op(sub, "recycle"));
    EXPECT_TRUE(FileSystem::isDirectory(trash + "/files/sub.2")); // a second one of that name

    EXPECT_FALSE(op(target, "compress") || op(folder + "/none", "destroy"));
}

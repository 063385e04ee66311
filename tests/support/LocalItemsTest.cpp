#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>

#include "common/Answers.h"
#include "common/LocalDate.h"
#include "common/TempHome.h"
#include "platform/framework/LocalFileSink.h"
#include "platform/framework/LocalFileSource.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"
#include "support/CFileAttributes.h"
#include "support/CFileInfo.h"
#include "support/FMLocFileManager.h"
#include "support/RestoredItem.h"

using namespace cirrovault;
using test::answers;

namespace {

// Rows of input and expected output for a path function; "<none>" is an empty optional.
using Rows = std::vector<std::pair<std::string, std::string>>;
void expectRows(const std::function<std::optional<std::string>(const std::string&)>& f, const Rows& rows) {
    for (const auto& [in, out] : rows)
        EXPECT_EQ(f(in).value_or("<none>"), out) << "input: " << in;
}
// Two-argument functions take their input as "first|second".
std::function<std::optional<std::string>(const std::string&)> split(
    std::function<std::string(const std::string&, const std::string&)> f) {
    return [f](const std::string& in) { return f(in.substr(0, in.find('|')), in.substr(in.find('|') + 1)); };
}

} // namespace

TEST(CFileInfoPaths, ServerAndLocalParentsNamesJoinsConversionsAndTrims) {
    expectRows(CFileInfo::getServerParentFolder,
               {{"\\A", ""}, {"A", ""}, {"", ""}, {"C:\\Docs", "C:"}, {"\\Backup\\Docs\\a.txt", "\\Backup\\Docs"}});
    // With no "\" at all the name is the whole text.
    expectRows(CFileInfo::GetServerFileName, {{"C:\\", ""}, {"C:\\x", "x"}, {"", ""}, {"\\Backup\\", ""}, {"plain", "plain"}});
    expectRows(CFileInfo::GetWINLocalParentPath, {{"C:\\", ""}, {"C:\\x", "C:"}, {"", ""}});
    // A doubled separator is kept; an empty part gives nothing.
    expectRows(split(CFileInfo::serverPathAppend),
               {{"\\a\\|b", "\\a\\b"}, {"\\a|b", "\\a\\b"}, {"\\a|\\b", "\\a\\\\b"}, {"|b", ""}, {"\\a|", ""}});
    expectRows(CFileInfo::removeServerPathBackslash, {{"\\", "\\"}, {"\\a\\\\", "\\a\\"}, {"\\a", "\\a"}, {"", ""}});
    expectRows(CFileInfo::convertServerPathToMacPath, {{"\\a\\b", "/a/b"}});
    expectRows(CFileInfo::convertMacPathToServerPath, {{"/a/b", "\\a\\b"}, {"", ""}});
    // Only the prefix's length counts, not its text; a prefix past the end gives nothing.
    expectRows(split(CFileInfo::getServerSubFolder), {{"\\Backup\\Docs\\x|\\Backup", "Docs\\x"},
                                                      {"\\Zzzzzz\\Docs|\\Backup", "Docs"}, {"|\\Backup", ""},
                                                      {"\\Backup|\\Backup", ""}, {"\\B|\\Backup\\Long", ""}});
    expectRows(split([](const std::string& p, const std::string& e) {
                   return CFileInfo::compareServerPathExtension(p, e) ? "yes" : "no";
               }),
               {{"\\a\\b.txt|txt", "yes"}, {"\\a\\b.txt|TXT", "no"}, {"\\a\\b.txt|.txt", "no"}, {"\\a.d\\b|d", "no"},
                {"\\a\\b.|", "no"}, {"|txt", "no"}, {"\\a\\b.tar.gz|gz", "yes"}});

    expectRows(CFileInfo::getMacParentFolder, {{"/A", "/"}, {"A", ""}, {"/a/b/", "/a/b"}, {"/a/b", "/a"}});
    expectRows(split(CFileInfo::getMacSubFolder),
               {{"/Users/a/Docs|/", "Users/a/Docs"}, {"/Users/a/Docs|/Users", "a/Docs"}, {"|/Users", ""}});
    expectRows(split(CFileInfo::MacPathAppend), {{"/a|b", "/a/b"}, {"/a/|/b", "/a/b"}, {"/|b", "/b"}, {"/a|", "/a/"}});
    // A later join absorbs the trailing slash.
    EXPECT_EQ(CFileInfo::MacPathAppend(CFileInfo::MacPathAppend("/a", ""), "c"), "/a/c");
    expectRows([](const std::string& p) { return CFileInfo::getMacFileName(p, false); },
               {{"/x/report.txt", "report.txt"}, {"/x/dir/", "dir"}});
    expectRows([](const std::string& p) { return CFileInfo::getMacFileName(p, true); },
               {{"/x/report.txt", "report"}, {"/x/.profile", ".profile"}, {"/x/a.tar.gz", "a.tar"}});
    expectRows(CFileInfo::removeBackslash, {{"/x/report.txt", "/x/report"}, {"/x.d/report", "/x.d/report"}, {"", "<none>"}});
    expectRows(CFileInfo::removeFirstBackslash, {{"/", "/"}, {"/a/b", "a/b"}, {"a/b", "a/b"}, {"", "<none>"}});
    expectRows(CFileInfo::pathTrim, {{" \t/a b\t ", "/a b"}, {"\n/a\n", "\n/a\n"}, {" \t ", ""}});
}

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

TEST(CFileInfoFiles, CreateQueryRenameAndDeleteAndApplicationFoldersFollowTheStringTable) {
    test::TempHome home;
    std::string folder = home.file("work/deep/er"), file = folder + "/a.txt", other = folder + "/b.txt";
    // Made twice (the second finds it there); a folder in the way of a file.
    EXPECT_EQ(answers({CFileInfo::CreateSubDir(folder), CFileInfo::CreateSubDir(folder), CFileInfo::isDirectory(folder),
                       CFileInfo::isFile(folder), CFileInfo::CreateFile(""), CFileInfo::CreateFile(file),
                       CFileInfo::CreateFile(file), CFileInfo::CreateFile(folder)}),
              "11100110");
    ASSERT_TRUE(FileSystem::writeFileAtomically(file, "12345"));
    EXPECT_TRUE(CFileInfo::isFile(file));
    EXPECT_EQ(CFileInfo::sizeOfFile(file), 5u);
    EXPECT_EQ(CFileInfo::sizeOfFile(folder + "/missing"), 0u);
    // The flag does not narrow the answer to files.
    EXPECT_EQ(answers({CFileInfo::IsfileExistsAtPath(file, true), CFileInfo::IsfileExistsAtPath(folder, false),
                       CFileInfo::IsfileExistsAtPath("", false)}),
              "110");

    // A link to a file is neither a file nor a folder: the link is not followed.
    std::string link = folder + "/link";
    ASSERT_EQ(::symlink(file.c_str(), link.c_str()), 0);
    EXPECT_FALSE(CFileInfo::isFile(link) || CFileInfo::isDirectory(link) || CFileInfo::isAliasFile(link));

    // Renamed; then refused onto an existing target.
    EXPECT_EQ(answers({CFileInfo::renameFile(file, ""), CFileInfo::renameFile(file, other), CFileInfo::CreateFile(file),
                       CFileInfo::renameFile(file, other)}),
              "0110");

    SystemLog::startCapture();
    EXPECT_EQ(answers({CFileInfo::deleteFile(other), CFileInfo::deleteFile(other)}), "10");
    EXPECT_EQ(SystemLog::capturedCount("Error:File not exists"), 1u);
    if (::geteuid() != 0) { // root may delete from a read-only folder
        ASSERT_EQ(::chmod(folder.c_str(), 0555), 0);
        EXPECT_FALSE(CFileInfo::deleteFile(file));
        EXPECT_EQ(SystemLog::capturedCount("Error: failed to delete file"), 1u);
        ::chmod(folder.c_str(), 0755);
    }
    EXPECT_TRUE(CFileInfo::deleteFile(home.file("work"))); // a folder with its contents
    EXPECT_FALSE(FileSystem::exists(home.file("work")));
    SystemLog::stopCapture();

    EXPECT_EQ(CFileInfo::getCurrentUserApplicationPath(), home.dataHome());
    std::string product = CFileInfo::getProductFolderPath();
    EXPECT_EQ(product, home.dataHome() + "/Cirrovault/Cirrovault Online Backup");

    // The temp folder is made, the returned path below it is not.
    EXPECT_EQ(CFileInfo::getTempPath("\\Backup\\Docs", true), product + "/Temp/Backup/Docs");
    EXPECT_TRUE(FileSystem::isDirectory(product + "/Temp") && !FileSystem::exists(product + "/Temp/Backup"));

    std::string data = CFileInfo::getDataFolderPath();
    EXPECT_EQ(answers({CFileInfo::CreateInAppDatePath(""), FileSystem::isDirectory(data),
                       CFileInfo::CreateInAppDatePath("acct/logs"), FileSystem::isDirectory(data + "/acct/logs"),
                       CFileInfo::CreateInAppDatePath("acct/logs")}), // already there
              "11111");

    // A file where the product folder should be blocks the temp folder.
    ASSERT_TRUE(FileSystem::removeAll(product));
    ASSERT_TRUE(FileSystem::createEmptyFile(product));
    EXPECT_EQ(CFileInfo::getTempPath("\\a", false), "");
}


// What getFileAttibutes answered and read, in one line.
std::string attributes(CFileAttributes& item) {
    bool read = item.getFileAttibutes();
    return std::to_string(read) + " file " + std::to_string(item.bFile) + " folder " + std::to_string(item.bFolder) +
           " size " + std::to_string(item.fileSize) + " " + item.fileType + " dates " +
           std::to_string(item.modifyDate.has_value()) + std::to_string(item.createDate.has_value());
}

TEST_F(LocalItems, AttributesKindsAndBrowserRowsWithSizeBoundariesAndMediumDateShortTime) {
    CFileAttributes onFile(file), onFolder(folder), onLink(link), missing(folder + "/none");
    EXPECT_EQ(attributes(onFile), "1 file 1 folder 0 size 10 Regular dates 11");
    EXPECT_EQ(*onFile.modifyDate, Date(1'700'000'000.25));
    EXPECT_LE(*onFile.createDate, *onFile.modifyDate);
    EXPECT_EQ(attributes(onFolder), "1 file 0 folder 1 size 0 Directory dates 11");
    EXPECT_EQ(attributes(onLink), "1 file 0 folder 0 size 0 SymbolicLink dates 11");
    EXPECT_EQ(attributes(missing), "0 file 0 folder 0 size 0  dates 00");

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
    EXPECT_EQ(FMLocFileManager::FormatFileSize(std::nullopt), "");
    // Just under 1024 KiB still rounds to KB.
    const std::pair<uint64_t, const char*> sizes[] = {
        {0, ""}, {1, "1 bytes"}, {1023, "1023 bytes"}, {1024, "1 KB"}, {1536, "2 KB"}, {1048575, "1024 KB"},
        {1048576, "1.0 MB"}, {5242880, "5.0 MB"}, {1073741824, "1.00 GB"}, {1099511627776, "1024.00 GB"}};
    for (const auto& [size, text] : sizes)
        EXPECT_EQ(FMLocFileManager::FormatFileSize(size), text) << size;
    EXPECT_EQ(manager.formatDate(test::localDate(2024, 1, 5, 15, 4)), "Jan 5, 2024, 3:04 PM");
    EXPECT_EQ(manager.formatDate(test::localDate(2024, 1, 5, 0, 4)), "Jan 5, 2024, 12:04 AM");
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

// What a download writes: the stored bytes under the stored time and mode.
static void download(const std::string& path, const std::string& bytes, Date time, uint32_t mode) {
    auto sink = LocalFileSink::open(path, time, mode);
    ASSERT_TRUE(sink);
    ASSERT_TRUE(sink->write(bytes.data(), bytes.size()));
    ASSERT_TRUE(sink->finish());
}

TEST_F(LocalItems, RestoredLinksAndModesComeBackAsTheyWere) {
    const Date when(1'600'000'000.25);

    // A private file is private from its first byte on, and stays so.
    download(home.file("id_key"), "secret", when, S_IFREG | 0600);
    EXPECT_EQ(RestoredItem::finish(home.file("id_key"), S_IFREG | 0600, when), "");
    EXPECT_EQ(FileSystem::linkStatus(home.file("id_key"))->mode & 07777, 0600u);
    download(home.file("tool"), "#!/bin/sh\n", when, S_IFREG | 0755);
    EXPECT_EQ(FileSystem::linkStatus(home.file("tool"))->mode & 07777, 0755u);
    // A copy stored before modes were kept is an ordinary file.
    download(home.file("old"), "x", when, 0);
    EXPECT_EQ(RestoredItem::finish(home.file("old"), 0, when), "");
    EXPECT_EQ(FileSystem::linkStatus(home.file("old"))->mode & 07777, 0644u);

    // A link's stored bytes are its target; a dangling target is kept as it is.
    for (const char* target : {"tool", "../elsewhere/missing dir/"}) {
        download(home.file("link"), target, when, S_IFLNK | 0777);
        EXPECT_EQ(RestoredItem::finish(home.file("link"), S_IFLNK | 0777, when), "");
        EXPECT_EQ(std::filesystem::read_symlink(home.file("link")), target);
        auto status = FileSystem::linkStatus(home.file("link"));
        ASSERT_TRUE(status);
        EXPECT_EQ(status->type, FileType::SymbolicLink);
        EXPECT_NEAR(status->modifyTime.timeIntervalSince1970(), 1'600'000'000.25, 1e-6);
    }
    // Read back for an upload, the link is its target again, never what it points to.
    auto source = LocalFileSource::open(home.file("link"));
    ASSERT_TRUE(source);
    EXPECT_TRUE(S_ISLNK(source->mode()));
    std::string bytes(source->size(), '\0');
    EXPECT_EQ(source->read(bytes.data(), bytes.size()), static_cast<int64_t>(bytes.size()));
    EXPECT_EQ(bytes, "../elsewhere/missing dir/");

    // A damaged record is said, and the bytes stay where they are.
    download(home.file("broken"), "", when, S_IFLNK | 0777);
    EXPECT_NE(RestoredItem::finish(home.file("broken"), S_IFLNK | 0777, when), "");
    EXPECT_TRUE(FileSystem::isRegularFile(home.file("broken")));
}

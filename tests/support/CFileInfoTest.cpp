#include <gtest/gtest.h>

#include <functional>

#include "common/Answers.h"
#include "common/TempHome.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"
#include "support/CFileInfo.h"

#include <sys/stat.h>
#include <unistd.h>

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

TEST(CFileInfoServerPaths, ParentNameJoinAndConversions) {
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
}

TEST(CFileInfoLocalPaths, ParentSubFolderJoinNamesAndTrims) {
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

TEST(CFileInfoFolders, ApplicationFoldersFollowTheStringTable) {
    test::TempHome home;
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

TEST(CFileInfoFiles, CreateQueryRenameAndDelete) {
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
}

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "common/FileModes.h"
#include "common/TempHome.h"
#include "platform/framework/PasswordMan.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"

using namespace cirrovault;

using test::permissionsOf;

TEST(PasswordMan, PhrasesAndAccountLiveInAnOwnerOnlyFileRepairedAndNeverGuessed) {
    test::TempHome home;
    test::UmaskScope permissive(0); // the file must be private whatever the umask allows
    SystemLog::startCapture();

    PasswordMan writer;
    EXPECT_FALSE(writer.GetPassword("\\Encrypted\\Docs") || writer.GetAccount());
    ASSERT_TRUE(writer.SetPassword("\\Encrypted\\Docs", true, "correct horse"));
    ASSERT_TRUE(writer.SetPassword("\\Encrypted\\Docs\\Deep", false, "battery staple"));
    ASSERT_TRUE(writer.SetAccount("alice", "s3cret|pw"));
    EXPECT_FALSE(writer.SetPassword("", true, "x") ||
                 writer.SetPassword("\\Encrypted\\Other", true, ""));

    std::string file = home.configHome() + "/cirrovault/passwords.plist";
    EXPECT_EQ(PasswordMan::PasswordFilePath(), file);
    EXPECT_EQ(std::make_pair(permissionsOf(file), permissionsOf(home.configHome() + "/cirrovault")),
              std::make_pair(0600u, 0700u));
    EXPECT_FALSE(writer.AccountInKeyring());
    EXPECT_EQ(FileSystem::listDirectory(home.configHome() + "/cirrovault"),
              std::vector<std::string>{"passwords.plist"}) << "no temporary file is left behind";

    PasswordMan reader;
    EXPECT_EQ(reader.GetPassword("\\Encrypted\\Docs"), "correct horse");
    EXPECT_EQ((std::vector{reader.IsEncrypt("\\Encrypted\\Docs"), reader.IsEncrypt("\\Encrypted\\Docs\\Deep"),
                           reader.IsEncrypt("\\Encrypted\\Other")}),
              (std::vector<std::optional<bool>>{true, false, std::nullopt}));
    auto account = reader.GetAccount().value_or(AccountCredentials{});
    EXPECT_EQ(account.userName + " " + account.password, "alice s3cret|pw");

    // A file of a task finds the phrase of the nearest task folder above it.
    for (auto [path, phrase] : std::map<std::string, std::string>{
             {"\\Encrypted\\Docs\\sub\\a.txt", "correct horse"}, {"\\Encrypted\\Docs", "correct horse"},
             {"\\Encrypted\\Docs\\Deep\\b.txt", "battery staple"}, {"\\Encrypted\\Docsx\\a.txt", "-"},
             {"\\Encrypted", "-"}})
        EXPECT_EQ(reader.FindPasswordForPath(path).value_or("-"), phrase) << path;

    ASSERT_TRUE(writer.RemovePassword("\\Encrypted\\Docs") && writer.RemoveAccount());
    EXPECT_FALSE(reader.GetPassword("\\Encrypted\\Docs") || reader.GetAccount());
    EXPECT_EQ(reader.GetPassword("\\Encrypted\\Docs\\Deep"), "battery staple");
    EXPECT_EQ(permissionsOf(file), 0600u);

    SystemLog::stopCapture();
    for (const std::string& line : SystemLog::captured())
        EXPECT_TRUE(line.find("correct horse") == line.npos && line.find("s3cret") == line.npos)
            << line;

    ASSERT_TRUE(FileSystem::writePrivateFileAtomically(file, "<plist><dict><key>PassPh"));
    SystemLog::startCapture();
    PasswordMan store;
    EXPECT_FALSE(store.GetPassword("\\Encrypted\\Docs"));
    EXPECT_TRUE(SystemLog::capturedContains("pass-phrase store cannot be read"));
    ASSERT_TRUE(store.SetPassword("\\Encrypted\\Docs", true, "new phrase"));
    // The damaged file may still hold phrases someone can recover: it is kept aside.
    EXPECT_EQ(FileSystem::readFile(file + ".damaged"), "<plist><dict><key>PassPh");
    EXPECT_EQ(store.GetPassword("\\Encrypted\\Docs"), "new phrase");

    // A store someone made readable to others is owner-only again after the next write.
    ASSERT_EQ(::chmod(file.c_str(), 0644), 0);
    EXPECT_EQ(store.GetPassword("\\Encrypted\\Docs"), "new phrase");
    EXPECT_TRUE(SystemLog::capturedContains("readable by other users"));
    ASSERT_TRUE(store.SetAccount("bob", "pw"));
    EXPECT_EQ(permissionsOf(file), 0600u);

    // Written by a session that had a keyring: the file holds no secrets, only the index.
    ASSERT_TRUE(FileSystem::writePrivateFileAtomically(file, R"(<?xml version="1.0"?>
<plist version="1.0"><dict>
<key>Account</key><dict><key>UserName</key><string>alice</string><key>InKeyring</key><true/></dict>
<key>PassPhrases</key><dict><key>\Enc\Docs</key><dict><key>InKeyring</key><true/><key>IsEncrypt</key><true/></dict></dict>
</dict></plist>)"));
    PasswordMan indexOnly;
    EXPECT_TRUE(indexOnly.AccountInKeyring());
    EXPECT_FALSE(indexOnly.GetAccount() || indexOnly.FindPasswordForPath("\\Enc\\Docs\\a.txt"));
    EXPECT_EQ(indexOnly.IsEncrypt("\\Enc\\Docs"), true); // known without reading the secret
    EXPECT_TRUE(SystemLog::capturedContains("kept in the desktop keyring cannot be read"));
    SystemLog::stopCapture();

    // Kept again while no keyring answers: into the file, and the file says so.
    ASSERT_TRUE(indexOnly.SetAccount("alice", "new pw"));
    EXPECT_FALSE(indexOnly.AccountInKeyring());
    EXPECT_EQ(indexOnly.GetAccount()->password, "new pw");

    // Secrets passed through this process: it cannot be dumped or read by another.
    rlimit core{1, 1};
    ::getrlimit(RLIMIT_CORE, &core);
    EXPECT_EQ(std::make_pair(::prctl(PR_GET_DUMPABLE, 0, 0, 0, 0), core.rlim_cur),
              std::make_pair(0, rlim_t{0}));
}

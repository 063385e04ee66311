#include <gtest/gtest.h>
#include <sys/stat.h>

#include "common/TempHome.h"
#include "platform/framework/PasswordMan.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"

using namespace cirrovault;

namespace {

uint32_t permissionsOf(const std::string& path) {
    auto status = FileSystem::linkStatus(path);
    return status ? (status->mode & 0777) : 0xFFFF;
}

// Restores the process umask when the test ends.
class UmaskScope {
public:
    explicit UmaskScope(mode_t mask) : old_(::umask(mask)) {}
    ~UmaskScope() { ::umask(old_); }

private:
    mode_t old_;
};

} // namespace

TEST(PasswordMan, PhrasesAndAccountLiveInAnOwnerOnlyFile) {
    test::TempHome home;
    UmaskScope permissive(0); // the file must be private whatever the umask allows
    SystemLog::startCapture();

    PasswordMan writer;
    EXPECT_FALSE(writer.GetPassword("\\Encrypted\\Docs"));
    EXPECT_FALSE(writer.GetAccount());
    ASSERT_TRUE(writer.SetPassword("\\Encrypted\\Docs", true, "correct horse"));
    ASSERT_TRUE(writer.SetPassword("\\Encrypted\\Docs\\Deep", false, "battery staple"));
    ASSERT_TRUE(writer.SetAccount("alice", "s3cret|pw"));
    EXPECT_FALSE(writer.SetPassword("", true, "x"));
    EXPECT_FALSE(writer.SetPassword("\\Encrypted\\Other", true, ""));

    std::string file = home.configHome() + "/cirrovault/passwords.plist";
    EXPECT_EQ(PasswordMan::PasswordFilePath(), file);
    EXPECT_EQ(permissionsOf(file), 0600u);
    auto names = FileSystem::listDirectory(home.configHome() + "/cirrovault");
    ASSERT_TRUE(names);
    EXPECT_EQ(names->size(), 1u) << "no temporary file is left behind";

    // Another instance (another process, in real life) sees the same store.
    PasswordMan reader;
    EXPECT_EQ(reader.GetPassword("\\Encrypted\\Docs"), "correct horse");
    EXPECT_EQ(reader.IsEncrypt("\\Encrypted\\Docs"), true);
    EXPECT_EQ(reader.IsEncrypt("\\Encrypted\\Docs\\Deep"), false);
    EXPECT_EQ(reader.IsEncrypt("\\Encrypted\\Other"), std::nullopt);
    auto account = reader.GetAccount();
    ASSERT_TRUE(account);
    EXPECT_EQ(account->userName, "alice");
    EXPECT_EQ(account->password, "s3cret|pw");

    // A file of a task finds the phrase of the nearest task folder above it.
    EXPECT_EQ(reader.FindPasswordForPath("\\Encrypted\\Docs\\sub\\a.txt"), "correct horse");
    EXPECT_EQ(reader.FindPasswordForPath("\\Encrypted\\Docs\\Deep\\b.txt"), "battery staple");
    EXPECT_EQ(reader.FindPasswordForPath("\\Encrypted\\Docs"), "correct horse");
    EXPECT_FALSE(reader.FindPasswordForPath("\\Encrypted\\Docsx\\a.txt"));
    EXPECT_FALSE(reader.FindPasswordForPath("\\Encrypted"));

    ASSERT_TRUE(writer.RemovePassword("\\Encrypted\\Docs"));
    ASSERT_TRUE(writer.RemoveAccount());
    EXPECT_FALSE(reader.GetPassword("\\Encrypted\\Docs"));
    EXPECT_EQ(reader.GetPassword("\\Encrypted\\Docs\\Deep"), "battery staple");
    EXPECT_FALSE(reader.GetAccount());
    EXPECT_EQ(permissionsOf(file), 0600u);

    SystemLog::stopCapture();
    for (const std::string& line : SystemLog::captured()) {
        EXPECT_EQ(line.find("correct horse"), std::string::npos) << line;
        EXPECT_EQ(line.find("s3cret"), std::string::npos) << line;
    }
}

TEST(PasswordMan, DamagedOrOpenStoreIsRepairedWithoutLosingIt) {
    test::TempHome home;
    std::string file = PasswordMan::PasswordFilePath();
    ASSERT_TRUE(FileSystem::createDirectories(home.configHome() + "/cirrovault"));
    ASSERT_TRUE(FileSystem::writeFileAtomically(file, "<plist><dict><key>PassPh"));

    SystemLog::startCapture();
    PasswordMan store;
    EXPECT_FALSE(store.GetPassword("\\Encrypted\\Docs"));
    EXPECT_TRUE(SystemLog::capturedContains("pass-phrase store cannot be read"));
    ASSERT_TRUE(store.SetPassword("\\Encrypted\\Docs", true, "new phrase"));
    SystemLog::stopCapture();
    // The damaged file may still hold phrases someone can recover: it is kept aside.
    EXPECT_EQ(FileSystem::readFile(file + ".damaged"), "<plist><dict><key>PassPh");
    EXPECT_EQ(store.GetPassword("\\Encrypted\\Docs"), "new phrase");
    EXPECT_EQ(permissionsOf(file), 0600u);

    // A store someone made readable to others is owner-only again after the next write.
    ASSERT_EQ(::chmod(file.c_str(), 0644), 0);
    SystemLog::startCapture();
    EXPECT_EQ(store.GetPassword("\\Encrypted\\Docs"), "new phrase");
    EXPECT_TRUE(SystemLog::capturedContains("readable by other users"));
    SystemLog::stopCapture();
    ASSERT_TRUE(store.SetAccount("bob", "pw"));
    EXPECT_EQ(permissionsOf(file), 0600u);
}

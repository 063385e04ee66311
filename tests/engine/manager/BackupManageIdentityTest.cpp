#include <gtest/gtest.h>

#include <cstdlib>
#include <tuple>

#include "common/TempHome.h"
#include "engine/manager/CBackupManage.h"
#include "platform/framework/PropertyList.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"

using namespace cirrovault;

namespace {

class BackupManageIdentity : public ::testing::Test {
protected:
    void SetUp() override { SystemLog::startCapture(); }
    void TearDown() override { SystemLog::stopCapture(); }

    std::string productFolder() const {
        return home_.dataHome() + "/Cirrovault/Cirrovault Online Backup";
    }
    std::string identityFile() const { return productFolder() + "/PCInfo.dat"; }

    test::TempHome home_;
};

} // namespace

TEST_F(BackupManageIdentity, MadeOnceThenReadBackUnchangedAndDamagedFileComesBackFromItsCopy) {
    CBackupManage first;
    first.initMyID();
    EXPECT_TRUE(SystemLog::capturedContains("No error saving pcINFO data."));
    EXPECT_EQ(first.identityProblem, "");
    auto bytes = FileSystem::readFile(identityFile());
    ASSERT_TRUE(bytes);

    auto plist = PropertyList::parse(*bytes);
    // The identifier is a decimal text, not a number node.
    EXPECT_EQ(plist, PropertyList(PlistDict{{"PC ID", PropertyList(std::to_string(first.pcID))},
                                            {"PC Name", PropertyList(first.pcName)}}));

    // Later starts read the same identity and never rewrite the file.
    for (int i = 0; i < 2; ++i) {
        CBackupManage later;
        later.initMyID();
        EXPECT_EQ(std::tie(later.pcID, later.pcName), std::tie(first.pcID, first.pcName));
    }
    EXPECT_EQ(FileSystem::readFile(identityFile()), bytes);
    EXPECT_EQ(SystemLog::capturedCount("No error creating initMyID."), 2u);

    // Another property-list reader takes the file as it is.
    if (FileSystem::exists("/usr/bin/plistutil")) {
        std::string binary = home_.file("pcinfo.bin");
        std::string command = "/usr/bin/plistutil -i '" + identityFile() + "' -o '" + binary +
                              "' -f bin >/dev/null 2>&1";
        ASSERT_EQ(std::system(command.c_str()), 0);
        EXPECT_EQ(PropertyList::parse(FileSystem::readFile(binary).value_or("")), plist);
    }

    ASSERT_TRUE(FileSystem::writeFileAtomically(identityFile(), "<plist><dict><key>PC"));
    CBackupManage restored;
    restored.initMyID();
    EXPECT_EQ(restored.pcID, first.pcID);
    EXPECT_EQ(restored.identityProblem, "");
    EXPECT_EQ(FileSystem::readFile(identityFile()), bytes);
    EXPECT_EQ(FileSystem::readFile(identityFile() + ".damaged"), "<plist><dict><key>PC");

    ASSERT_TRUE(FileSystem::removeItem(identityFile())); // a lost file too
    CBackupManage lost;
    lost.initMyID();
    EXPECT_EQ(lost.pcID, first.pcID);

    ASSERT_TRUE(FileSystem::writeFileAtomically(identityFile(), "x"));
    ASSERT_TRUE(FileSystem::writeFileAtomically(productFolder() + "/PCInfo.copy", "y"));
    CBackupManage neither;
    neither.initMyID();
    EXPECT_EQ(neither.pcID, 0u);
    EXPECT_NE(neither.identityProblem.find("task migrate"), std::string::npos);
    EXPECT_EQ(FileSystem::readFile(identityFile()), "x");
}

TEST_F(BackupManageIdentity, FileWithoutAGoodIdentityIsReadAsItIsAndLeftAlone) {
    auto plist = [](PlistDict dict) { return PropertyList(std::move(dict)).toXml(); };
    std::string valid = plist({{"PC ID", PropertyList("77")}, {"PC Name", PropertyList("desk")}});
    // The file's content, then the identity and whether the file reads as damaged.
    const std::tuple<std::string, uint64_t, std::string, bool> cases[] = {
        // A damaged file or one without the keys leaves the identity as it was.
        {"", 0, "before", true},
        {valid.substr(0, valid.size() / 2), 0, "before", true},
        {PropertyList(PlistArray{PropertyList("77")}).toXml(), 0, "before", true},
        {plist({}), 0, "before", false}, // no identity, but nothing wrong with the file
        // Numbers are read like a C int: leading digits, else 0.
        {plist({{"PC ID", PropertyList(" 42abc")}, {"PC Name", PropertyList("desk")}}), 42, "desk", false},
        {plist({{"PC ID", PropertyList("desk")}}), 0, "", false}, // the name read as missing
    };
    ASSERT_TRUE(FileSystem::createDirectories(productFolder()));
    for (const auto& [content, id, name, damaged] : cases) {
        SCOPED_TRACE(content);
        ASSERT_TRUE(FileSystem::writeFileAtomically(identityFile(), content));
        SystemLog::startCapture();
        CBackupManage manager;
        manager.pcName = "before";
        manager.initMyID();
        EXPECT_EQ(std::tie(manager.pcID, manager.pcName), std::tie(id, name));
        EXPECT_EQ(SystemLog::capturedContains("Error: PCInfo.dat holds no identity"), damaged);
        EXPECT_EQ(SystemLog::capturedContains("Error"), damaged);
        EXPECT_EQ(FileSystem::readFile(identityFile()), content);
    }
}

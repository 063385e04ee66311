#include <gtest/gtest.h>

#include "common/TempHome.h"
#include "platform/framework/PropertyList.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"
#include "support/AccountSession.h"
#include "support/OptionsMan.h"

using namespace cirrovault;

class OptionsManTest : public ::testing::Test {
protected:
    void SetUp() override { OptionsMan::clearnOptionsManClass(); }
    void TearDown() override { OptionsMan::clearnOptionsManClass(); }

    std::string publicFile() const { return home.dataHome() + "/Cirrovault/Options/OnlineBackup/Options.plist"; }

    // Every option in one line: minutes, then the flags, then the report address.
    static std::string options() {
        return std::to_string(OptionsMan::intervalMinutes()) + " " +
               std::to_string(OptionsMan::IsAutoStartScheduleAfterMinutes()) + std::to_string(OptionsMan::IsAutoRun()) +
               std::to_string(OptionsMan::IsUseSSL()) + std::to_string(OptionsMan::IsReportWhenError()) +
               std::to_string(OptionsMan::IsReportWhenFinish()) + " " + OptionsMan::reportEmail();
    }
    static constexpr const char* kDefaults = "1 10000 ";

    test::TempHome home;
};

TEST_F(OptionsManTest, DefaultsSettersLoadingBeforeSavingAndAFileRoundTripKeepingTypesAndUnknownKeys) {
    EXPECT_EQ(options(), kDefaults);
    OptionsMan::LoadPublicOptions(); // no file: nothing changes
    EXPECT_EQ(options(), kDefaults);

    OptionsMan::SetIntervalMinutes(0); // 0 is a value, not "missing"
    OptionsMan::SetAutoStartScheduleAfterMinutes(false);
    OptionsMan::SetAutoRun(true);
    OptionsMan::SetUseSSL(true);
    OptionsMan::setReportEmail("a@example.com; b@example.com");
    OptionsMan::SetReportWhenError(true);
    OptionsMan::SetReportWhenFinish(true);
    EXPECT_EQ(options(), "0 01111 a@example.com; b@example.com");
    EXPECT_FALSE(FileSystem::exists(publicFile())) << "setters never write the file";

    OptionsMan::SavePublicOptions();
    OptionsMan::SetIntervalMinutes(42);
    OptionsMan::LoadPublicOptions(); // loading before saving discards the change
    EXPECT_EQ(OptionsMan::intervalMinutes(), 0u);

    OptionsMan::clearnOptionsManClass();
    EXPECT_EQ(options(), kDefaults);

    OptionsMan::SetIntervalMinutes(4000000000u);
    OptionsMan::SetReportWhenFinish(true);
    OptionsMan::setReportEmail("me@example.com");
    OptionsMan::SavePublicOptions();

    auto file = PropertyListFile::read(publicFile());
    ASSERT_TRUE(file && file->find("MyOptions")->find("Minutes"));
    EXPECT_EQ(std::get<int64_t>(file->find("MyOptions")->find("Minutes")->value()), 4000000000);
    EXPECT_EQ(std::get<bool>(file->find("EventLog")->find("ReportWhenFinish")->value()), true);
    EXPECT_EQ(*file->find("EventLog")->find("ReportEmail")->string(), "me@example.com");
    ASSERT_TRUE(file->find("SystemOptions")) << "every group is made by a setter";

    // Keys this program does not know are kept through a load and a save.
    (*file->find("SystemOptions")->dict())["CacheSize"] = PropertyList(int64_t{512});
    (*file->dict())["FutureGroup"] = PropertyList(PlistDict{{"k", PropertyList("v")}});
    ASSERT_TRUE(PropertyListFile::write(publicFile(), *file));
    OptionsMan::clearnOptionsManClass();
    OptionsMan::LoadPublicOptions();
    EXPECT_EQ(options(), "4000000000 10001 me@example.com");
    OptionsMan::SetUseSSL(true);
    OptionsMan::SavePublicOptions();
    auto again = PropertyListFile::read(publicFile());
    ASSERT_TRUE(again);
    EXPECT_EQ(std::get<int64_t>(again->find("SystemOptions")->find("CacheSize")->value()), 512);
    EXPECT_EQ(*again->find("FutureGroup")->find("k")->string(), "v");
    EXPECT_EQ(std::get<bool>(again->find("SystemOptions")->find("UseSSL")->value()), true);
}

TEST_F(OptionsManTest, DamagedFileGivesDefaultsAndStoresNothing) {
    std::string good =
        PropertyList(PlistDict{{"MyOptions", PropertyList(PlistDict{{"Minutes", PropertyList(9)}})}}).toXml();
    const std::string damaged[] = {
        "", "not a property list at all", good.substr(0, good.size() / 2),
        PropertyList(PlistArray{PropertyList("x")}).toXml(), // a list where a dictionary belongs
    };
    ASSERT_TRUE(FileSystem::createDirectories(home.dataHome() + "/Cirrovault/Options/OnlineBackup"));
    for (const std::string& content : damaged) {
        SCOPED_TRACE(content);
        OptionsMan::clearnOptionsManClass();
        OptionsMan::SetIntervalMinutes(7);
        ASSERT_TRUE(FileSystem::writeFileAtomically(publicFile(), content));
        SystemLog::startCapture();
        OptionsMan::LoadPublicOptions();
        EXPECT_EQ(SystemLog::capturedCount("Error: damaged options file, using defaults: " + publicFile()), 1u);
        SystemLog::stopCapture();
        EXPECT_EQ(options(), kDefaults);
        OptionsMan::SetIntervalMinutes(5); // no options: nothing is stored
        EXPECT_EQ(OptionsMan::intervalMinutes(), 1u);
        OptionsMan::SavePublicOptions(); // and nothing is written over the file
        EXPECT_EQ(FileSystem::readFile(publicFile()), content);
    }
    // A group that is not a dictionary reads as missing and takes no values.
    ASSERT_TRUE(FileSystem::writeFileAtomically(
        publicFile(), PropertyList(PlistDict{{"MyOptions", PropertyList("oops")}}).toXml()));
    OptionsMan::LoadPublicOptions();
    OptionsMan::SetIntervalMinutes(3);
    EXPECT_EQ(OptionsMan::intervalMinutes(), 1u);
    OptionsMan::SetReportWhenError(true); // other groups still work
    EXPECT_TRUE(OptionsMan::IsReportWhenError());
}

TEST_F(OptionsManTest, AccountFileIsSeparateFromThePublicFile) {
    EXPECT_EQ(OptionsMan::getOptionsFile(), OptionsMan::getPublicOptionsFile());
    EXPECT_EQ(OptionsMan::getPublicOptionsFile(), publicFile());
    EXPECT_TRUE(FileSystem::isDirectory(home.dataHome() + "/Cirrovault/Options/OnlineBackup"));

    OptionsMan::SetIntervalMinutes(30);
    OptionsMan::SavePublicOptions();
    {
        test::AccountSession session("cust-42");
        std::string accountFile = home.dataHome() + "/Cirrovault/Options/OnlineBackup/cust-42/Options.plist";
        EXPECT_EQ(OptionsMan::getOptionsFile(), accountFile);

        OptionsMan::clearnOptionsManClass();
        OptionsMan::SetIntervalMinutes(15);
        OptionsMan::SaveOptions();
        ASSERT_TRUE(FileSystem::isRegularFile(accountFile));

        // The sets are not merged: the last load wins.
        OptionsMan::clearnOptionsManClass();
        std::string loaded;
        for (auto load : {OptionsMan::LoadOptions, OptionsMan::LoadPublicOptions, OptionsMan::LoadOptions})
            loaded += (load(), std::to_string(OptionsMan::intervalMinutes())) + " ";
        EXPECT_EQ(loaded, "15 30 15 ");
    }
    {
        test::AccountSession strange("../escape");
        SystemLog::startCapture();
        EXPECT_EQ(OptionsMan::getOptionsFile(), "");
        OptionsMan::SaveOptions(); // refused, not written outside the options folder
        EXPECT_TRUE(SystemLog::capturedContains("Error: the customer ID cannot name an options folder"));
        SystemLog::stopCapture();
        EXPECT_FALSE(FileSystem::exists(home.dataHome() + "/Cirrovault/Options/escape"));
    }
}

#include <gtest/gtest.h>

#include "common/ManualClockScope.h"
#include "common/TempHome.h"
#include "platform/framework/NimboSetting.h"
#include "platform/framework/UserSettingMan.h"
#include "platform/os/FileSystem.h"

using namespace cirrovault;

// Damaged settings are never replaced: fresh ones would point the commands at another store.
TEST(UserSettingMan, NothingUntilALogonIsRecordedAndDamagedSettingsAreNamedAndNeverWrittenOver) {
    test::TempHome home;
    test::ManualClockScope scope(Date(1714568709.0));
    EXPECT_FALSE(UserSettingMan::SetUserInfo("", "c1"));
    EXPECT_FALSE(UserSettingMan::GetUserInfo());

    // A damaged file counts as no logon, and the next logon replaces it.
    std::string file = home.configHome() + "/cirrovault/UserSetting.plist";
    EXPECT_EQ(UserSettingMan::UserSettingFilePath(), file);
    ASSERT_TRUE(FileSystem::createDirectories(home.configHome() + "/cirrovault"));
    ASSERT_TRUE(FileSystem::writeFileAtomically(file, "<?xml version=\"1.0\"?><plist><dict>"));
    EXPECT_FALSE(UserSettingMan::GetUserInfo());

    ASSERT_TRUE(UserSettingMan::SetUserInfo("alice@example.com", "cust-42"));
    auto info = UserSettingMan::GetUserInfo();
    ASSERT_TRUE(info);
    EXPECT_EQ(std::tie(info->userName, info->customerID, info->lastLogonDate),
              std::make_tuple("alice@example.com", "cust-42", scope.clock->now()));
    scope.clock->advance(3600);
    ASSERT_TRUE(UserSettingMan::SetUserInfo("bob", ""));
    info = UserSettingMan::GetUserInfo();
    ASSERT_TRUE(info);
    EXPECT_EQ(std::tie(info->userName, info->lastLogonDate),
              std::make_tuple("bob", scope.clock->now()));

    EXPECT_TRUE(UserSettingMan::ClearUserInfo());
    EXPECT_FALSE(UserSettingMan::GetUserInfo());
    EXPECT_TRUE(UserSettingMan::ClearUserInfo()); // nothing to clear is no failure

    ASSERT_TRUE(NimboSetting::SetSettingValueForKey("ServiceURL", "file:///srv/store"));
    EXPECT_EQ(NimboSetting::DamagedSettingsFile(), "");

    const std::string settings = NimboSetting::SettingsFilePath();
    ASSERT_TRUE(FileSystem::writeFileAtomically(settings, "<plist><dict><key>ServiceURL"));
    EXPECT_EQ(NimboSetting::DamagedSettingsFile(), settings);
    EXPECT_FALSE(NimboSetting::SetSettingValueForKey("SmtpURL", "smtp://x") ||
                 NimboSetting::RemoveSettingForKey("ServiceURL"));
    EXPECT_EQ(FileSystem::readFile(settings), "<plist><dict><key>ServiceURL");

    ASSERT_TRUE(FileSystem::removeItem(settings));
    ASSERT_TRUE(FileSystem::writeFileAtomically(UserSettingMan::UserSettingFilePath(), "<plist>"));
    EXPECT_EQ(NimboSetting::DamagedSettingsFile(), UserSettingMan::UserSettingFilePath());
}

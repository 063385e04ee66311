#include "platform/framework/UserSettingMan.h"

#include <mutex>

#include "platform/framework/PropertyList.h"
#include "platform/os/FileSystem.h"
#include "platform/os/Guarded.h"
#include "platform/os/Host.h"
#include "platform/os/SystemLog.h"

namespace cirrovault {

namespace {

std::mutex gMutex;

const char* const kUserName = "UserName";
const char* const kCustomerID = "CustomerID";
const char* const kLastLogon = "LastLogonDate";

std::string textOf(const PropertyList& root, const char* key) {
    const PropertyList* value = root.find(key);
    const std::string* text = value ? value->string() : nullptr;
    return text ? *text : std::string();
}

} // namespace

std::string UserSettingMan::UserSettingFilePath() {
    return Host::configFolder() + "/cirrovault/UserSetting.plist";
}

std::optional<UserInfo> UserSettingMan::GetUserInfo() {
    using Info = std::optional<UserInfo>;
    return guarded("Error: UserSettingMan::GetUserInfo", Info(), []() -> Info {
        std::lock_guard lock(gMutex);
        auto root = PropertyListFile::read(UserSettingFilePath());
        if (!root || !root->isDict())
            return std::nullopt;
        UserInfo info;
        info.userName = textOf(*root, kUserName);
        if (info.userName.empty())
            return std::nullopt;
        info.customerID = textOf(*root, kCustomerID);
        if (const PropertyList* date = root->find(kLastLogon))
            if (auto value = std::get_if<Date>(&date->value()))
                info.lastLogonDate = *value;
        return info;
    });
}

bool UserSettingMan::SetUserInfo(const std::string& userName, const std::string& customerID) {
    return guarded("Error: UserSettingMan::SetUserInfo", false, [&] {
        if (userName.empty()) {
            SystemLog::write("Error: UserSettingMan::SetUserInfo needs a user name");
            return false;
        }
        std::lock_guard lock(gMutex);
        if (!FileSystem::createDirectories(Host::configFolder() + "/cirrovault"))
            return false;
        PropertyList root(PlistDict{{kUserName, PropertyList(userName)},
                                    {kCustomerID, PropertyList(customerID)},
                                    {kLastLogon, PropertyList(Date::now())}});
        if (!PropertyListFile::write(UserSettingFilePath(), root)) {
            SystemLog::write("Error: cannot write " + UserSettingFilePath());
            return false;
        }
        return true;
    });
}

bool UserSettingMan::ClearUserInfo() {
    return guarded("Error: UserSettingMan::ClearUserInfo", false, [] {
        std::lock_guard lock(gMutex);
        std::string path = UserSettingFilePath();
        return !FileSystem::exists(path) || FileSystem::removeItem(path);
    });
}

} // namespace cirrovault

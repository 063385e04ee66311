#pragma once

#include <optional>
#include <string>

#include "platform/os/Date.h"

namespace cirrovault {

// Who last logged on from this computer.
struct UserInfo {
    std::string userName;
    std::string customerID;
    Date lastLogonDate;
};

// Stored user information: "UserSetting.plist" in the user's configuration folder
// ($XDG_CONFIG_HOME/cirrovault). Read again on every call, so the command line and the
// daemon agree.
class UserSettingMan {
public:
    // Nothing until a user has logged on here (also when the file is damaged).
    static std::optional<UserInfo> GetUserInfo();
    // Records a logon now (by the process clock); an empty user name is refused.
    static bool SetUserInfo(const std::string& userName, const std::string& customerID);
    static bool ClearUserInfo();
    static std::string UserSettingFilePath();
};

} // namespace cirrovault

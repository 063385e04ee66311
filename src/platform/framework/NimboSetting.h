#pragma once

#include <optional>
#include <string>

namespace cirrovault {

// The framework's settings: a property list "settings.plist" in the user's
// configuration folder ($XDG_CONFIG_HOME/cirrovault). Holds the service URL, the SMTP
// URL and tuning keys such as "IgnoreTimeSpan" and "UploadLocalPathCount".
class NimboSetting {
public:
    // The setting's text; numbers and booleans are answered as decimal text.
    static std::string GetSettingValueForKey(const std::string& key,
                                             const std::string& defaultValue = "");
    static std::optional<std::string> GetSetting(const std::string& key);
    // Stores and writes the whole file at once; false when it cannot be written.
    static bool SetSettingValueForKey(const std::string& key, const std::string& value);
    static bool RemoveSettingForKey(const std::string& key);
    static std::string SettingsFilePath();
    // A value for this process only (an option typed on the command line), answered
    // before the file's; the file is not changed.
    static void OverrideForThisProcess(const std::string& key, const std::string& value);
    // The first of this user's settings files (the settings, who logged on here) that is
    // there but does not read as a dictionary; "" when none is. Such a file is never
    // written over: reading on from the defaults would silently switch the user's data
    // to another store or account.
    static std::string DamagedSettingsFile();
};

} // namespace cirrovault

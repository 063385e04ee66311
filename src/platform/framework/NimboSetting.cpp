#include "platform/framework/NimboSetting.h"

#include <map>
#include <mutex>

#include "platform/framework/PropertyList.h"
#include "platform/framework/UserSettingMan.h"
#include "platform/os/FileSystem.h"
#include "platform/os/Host.h"

namespace cirrovault {

namespace {

std::mutex gMutex;
std::map<std::string, std::string> gOverrides; // guarded by gMutex

std::string textOf(const PropertyList& value) {
    if (const std::string* s = value.string())
        return *s;
    if (auto b = std::get_if<bool>(&value.value()))
        return *b ? "1" : "0";
    if (auto i = value.asInteger())
        return std::to_string(*i);
    return "";
}

// Read on every call: the file is small, and another process (the command line
// beside the daemon) may have changed it. Nothing when it is there but damaged.
std::optional<PropertyList> load(const std::string& path) {
    auto plist = PropertyListFile::read(path);
    if (plist && plist->isDict())
        return plist;
    if (FileSystem::exists(path))
        return std::nullopt;
    return PropertyList(PlistDict{});
}

} // namespace

std::string NimboSetting::SettingsFilePath() {
    return Host::configFolder() + "/cirrovault/settings.plist";
}

std::string NimboSetting::DamagedSettingsFile() {
    std::lock_guard lock(gMutex);
    for (const std::string& path : {SettingsFilePath(), UserSettingMan::UserSettingFilePath()})
        if (!load(path))
            return path;
    return "";
}

void NimboSetting::OverrideForThisProcess(const std::string& key, const std::string& value) {
    std::lock_guard lock(gMutex);
    gOverrides[key] = value;
}

std::optional<std::string> NimboSetting::GetSetting(const std::string& key) {
    std::lock_guard lock(gMutex);
    if (auto o = gOverrides.find(key); o != gOverrides.end())
        return o->second;
    auto settings = load(SettingsFilePath());
    if (const PropertyList* value = settings ? settings->find(key) : nullptr)
        return textOf(*value);
    return std::nullopt;
}

std::string NimboSetting::GetSettingValueForKey(const std::string& key,
                                                const std::string& defaultValue) {
    return GetSetting(key).value_or(defaultValue);
}

bool NimboSetting::SetSettingValueForKey(const std::string& key, const std::string& value) {
    std::lock_guard lock(gMutex);
    std::string path = SettingsFilePath();
    auto settings = load(path);
    if (!settings)
        return false;
    (*settings->dict())[key] = PropertyList(value);
    FileSystem::createDirectories(Host::configFolder() + "/cirrovault");
    return PropertyListFile::write(path, *settings);
}

bool NimboSetting::RemoveSettingForKey(const std::string& key) {
    std::lock_guard lock(gMutex);
    std::string path = SettingsFilePath();
    auto settings = load(path);
    if (!settings)
        return false;
    if (settings->dict()->erase(key) == 0)
        return true;
    return PropertyListFile::write(path, *settings);
}

} // namespace cirrovault

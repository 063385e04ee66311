#include "platform/framework/LoadString.h"

#include <cstdlib>
#include <map>
#include <mutex>
#include <optional>

#include "platform/framework/PropertyList.h"
#include "platform/os/Host.h"

namespace cirrovault {

extern const char* const kEmbeddedStringTable;

namespace {

std::mutex gMutex;
std::optional<std::map<std::string, std::string>> gTable; // guarded by gMutex

void addStrings(std::map<std::string, std::string>& table, const PropertyList& plist) {
    const PlistDict* dict = plist.dict();
    if (!dict)
        return;
    for (const auto& [key, value] : *dict)
        if (const std::string* text = value.string())
            table[key] = *text;
}

std::string overrideFilePath() {
    if (const char* path = std::getenv("CIRROVAULT_STRINGS"); path && *path)
        return path;
    return Host::configFolder() + "/cirrovault/Localizable.plist";
}

const std::map<std::string, std::string>& table() {
    if (!gTable) {
        gTable.emplace();
        if (auto builtIn = PropertyList::parse(kEmbeddedStringTable))
            addStrings(*gTable, *builtIn);
        else
            SystemLog::write("Error: the built-in string table does not parse");
        if (auto local = PropertyListFile::read(overrideFilePath()))
            addStrings(*gTable, *local);
    }
    return *gTable;
}

} // namespace

std::string LoadString::GetValueByKey(const std::string& key, const std::string& defaultValue) {
    std::lock_guard lock(gMutex);
    const auto& t = table();
    auto it = t.find(key);
    return it == t.end() ? defaultValue : it->second;
}

bool LoadString::HasKey(const std::string& key) {
    std::lock_guard lock(gMutex);
    return table().count(key) != 0;
}

void LoadString::Reload() {
    std::lock_guard lock(gMutex);
    gTable.reset();
}

} // namespace cirrovault

#include "support/OptionsMan.h"

#include <algorithm>
#include <mutex>

#include "platform/framework/LoadString.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/FileSystem.h"
#include "platform/os/Guarded.h"
#include "platform/os/SystemLog.h"
#include "support/CFileInfo.h"

namespace cirrovault {

namespace {

std::mutex gClassMutex;
std::shared_ptr<OptionsMan> gShared; // guarded by gClassMutex

const char* const kFileName = "Options.plist";
const char* const kGroups[] = {SystemOptionsKey, MyOptionsKey, EventLogKey};

// A customer ID becomes one folder name; anything that would leave the options folder
// is refused rather than followed.
bool isFolderName(const std::string& name) {
    return name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

std::string optionsFileIn(const std::string& customerID) {
    std::string appSupport = CFileInfo::getCurrentUserApplicationPath();
    if (appSupport.empty())
        return kFileName;
    std::string folder = CFileInfo::MacPathAppend(
        CFileInfo::MacPathAppend(appSupport,
                                 LoadString::GetValueByKey("CacheRootFolderName", "Cirrovault")),
        "Options/OnlineBackup");
    if (!customerID.empty())
        folder = CFileInfo::MacPathAppend(folder, customerID);
    if (!CFileInfo::CreateSubDir(folder))
        SystemLog::write("Error: cannot create the options folder " + folder);
    return CFileInfo::MacPathAppend(folder, kFileName);
}

} // namespace

OptionsMan::OptionsMan() : options_(PropertyList(PlistDict{})) {}

std::shared_ptr<OptionsMan> OptionsMan::shareTaskOptionsMan() {
    return guarded("Error: OptionsMan::shareTaskOptionsMan", std::shared_ptr<OptionsMan>(), [] {
        std::lock_guard lock(gClassMutex);
        if (!gShared)
            gShared.reset(new OptionsMan());
        return gShared;
    });
}

void OptionsMan::clearnOptionsManClass() {
    std::lock_guard lock(gClassMutex);
    gShared.reset();
}

void OptionsMan::initOptions() {
    guarded("Error: OptionsMan::initOptions", [] {
        std::lock_guard lock(gClassMutex);
        if (!gShared)
            gShared.reset(new OptionsMan());
        if (!gShared->options_)
            return;
        PlistDict& root = *gShared->options_->dict();
        for (const char* group : kGroups)
            root.try_emplace(group, PropertyList(PlistDict{}));
    });
}

std::optional<PropertyList> OptionsMan::options() {
    return guarded("Error: OptionsMan::options", std::optional<PropertyList>(), [] {
        std::lock_guard lock(gClassMutex);
        return gShared ? gShared->options_ : std::optional<PropertyList>(PropertyList(PlistDict{}));
    });
}

namespace {

const PropertyList* findOption(const std::optional<PropertyList>& options, const char* group,
                               const char* key) {
    if (!options)
        return nullptr;
    const PropertyList* groupDict = options->find(group);
    return groupDict ? groupDict->find(key) : nullptr;
}

} // namespace

std::optional<bool> OptionsMan::boolOption(const char* group, const char* key) {
    std::lock_guard lock(gClassMutex);
    if (!gShared)
        return std::nullopt;
    const PropertyList* value = findOption(gShared->options_, group, key);
    return value ? value->asBool() : std::nullopt;
}

void OptionsMan::setOption(const char* group, const char* key, PropertyList value) {
    initOptions();
    std::lock_guard lock(gClassMutex);
    if (!gShared || !gShared->options_)
        return; // no options to set: nothing is stored until they are set up again
    PropertyList* groupDict = gShared->options_->find(group);
    if (!groupDict || !groupDict->isDict()) {
        SystemLog::write(std::string("Error: option group is not a dictionary: ") + group);
        return;
    }
    (*groupDict->dict())[key] = std::move(value);
}

bool OptionsMan::IsAutoRun() {
    return guarded("Error: OptionsMan::IsAutoRun", false,
                   [] { return boolOption(SystemOptionsKey, AutoRunKey).value_or(false); });
}

void OptionsMan::SetAutoRun(bool autoRun) {
    guarded("Error: OptionsMan::SetAutoRun",
            [&] { setOption(SystemOptionsKey, AutoRunKey, PropertyList(autoRun)); });
}

bool OptionsMan::IsUseSSL() {
    return guarded("Error: OptionsMan::IsUseSSL", false,
                   [] { return boolOption(SystemOptionsKey, UseSSLKey).value_or(false); });
}

void OptionsMan::SetUseSSL(bool useSSL) {
    guarded("Error: OptionsMan::SetUseSSL",
            [&] { setOption(SystemOptionsKey, UseSSLKey, PropertyList(useSSL)); });
}

bool OptionsMan::IsAutoStartScheduleAfterMinutes() {
    return guarded("Error: OptionsMan::IsAutoStartScheduleAfterMinutes", true, [] {
        return boolOption(MyOptionsKey, AutoScheduleTypeKey).value_or(true);
    });
}

void OptionsMan::SetAutoStartScheduleAfterMinutes(bool autoStart) {
    guarded("Error: OptionsMan::SetAutoStartScheduleAfterMinutes",
            [&] { setOption(MyOptionsKey, AutoScheduleTypeKey, PropertyList(autoStart)); });
}

uint32_t OptionsMan::intervalMinutes() {
    return guarded("Error: OptionsMan::intervalMinutes", uint32_t{1}, [] {
        std::lock_guard lock(gClassMutex);
        if (!gShared)
            return uint32_t{1};
        const PropertyList* value = findOption(gShared->options_, MyOptionsKey, AutoStartMinutesKey);
        auto number = value ? value->asInteger() : std::nullopt;
        // Out-of-range numbers wrap as an unsigned 32-bit conversion does.
        return number ? static_cast<uint32_t>(*number) : uint32_t{1};
    });
}

void OptionsMan::SetIntervalMinutes(uint32_t minutes) {
    guarded("Error: OptionsMan::SetIntervalMinutes",
            [&] { setOption(MyOptionsKey, AutoStartMinutesKey, PropertyList(minutes)); });
}

uint32_t OptionsMan::transfers() {
    return guarded("Error: OptionsMan::transfers", DefaultTransfers, [] {
        std::lock_guard lock(gClassMutex);
        if (!gShared)
            return DefaultTransfers;
        const PropertyList* value = findOption(gShared->options_, SystemOptionsKey, TransfersKey);
        auto number = value ? value->asInteger() : std::nullopt;
        if (!number)
            return DefaultTransfers;
        return static_cast<uint32_t>(std::clamp<int64_t>(*number, 1, MaxTransfers));
    });
}

void OptionsMan::SetTransfers(uint32_t transfers) {
    guarded("Error: OptionsMan::SetTransfers", [&] {
        setOption(SystemOptionsKey, TransfersKey,
                  PropertyList(std::clamp<uint32_t>(transfers, 1, MaxTransfers)));
    });
}

std::string OptionsMan::reportEmail() {
    return guarded("Error: OptionsMan::reportEmail", std::string(), [] {
        std::lock_guard lock(gClassMutex);
        if (!gShared)
            return std::string();
        const PropertyList* value = findOption(gShared->options_, EventLogKey, reportEmailKey);
        const std::string* text = value ? value->string() : nullptr;
        return text ? *text : std::string();
    });
}

void OptionsMan::setReportEmail(const std::string& reportEmail) {
    guarded("Error: OptionsMan::setReportEmail",
            [&] { setOption(EventLogKey, reportEmailKey, PropertyList(reportEmail)); });
}

bool OptionsMan::IsReportWhenError() {
    return guarded("Error: OptionsMan::IsReportWhenError", false, [] {
        return boolOption(EventLogKey, reportWhenErrorKey).value_or(false);
    });
}

void OptionsMan::SetReportWhenError(bool report) {
    guarded("Error: OptionsMan::SetReportWhenError",
            [&] { setOption(EventLogKey, reportWhenErrorKey, PropertyList(report)); });
}

bool OptionsMan::IsReportWhenFinish() {
    return guarded("Error: OptionsMan::IsReportWhenFinish", false, [] {
        return boolOption(EventLogKey, reportWhenFinishKey).value_or(false);
    });
}

void OptionsMan::SetReportWhenFinish(bool report) {
    guarded("Error: OptionsMan::SetReportWhenFinish",
            [&] { setOption(EventLogKey, reportWhenFinishKey, PropertyList(report)); });
}

void OptionsMan::load(const std::string& path) {
    if (path.empty())
        return;
    std::lock_guard lock(gClassMutex);
    auto bytes = FileSystem::readFile(path);
    if (!bytes)
        return; // no file yet: the options stay as they are
    if (!gShared)
        gShared.reset(new OptionsMan());
    auto plist = PropertyList::parse(*bytes);
    if (plist && plist->isDict()) {
        gShared->options_ = std::move(*plist);
        return;
    }
    SystemLog::write("Error: damaged options file, using defaults: " + path);
    gShared->options_.reset();
}

void OptionsMan::save(const std::string& path) {
    if (path.empty())
        return;
    std::lock_guard lock(gClassMutex);
    if (!gShared || !gShared->options_) {
        SystemLog::write("Error: no options to save to " + path);
        return;
    }
    if (!PropertyListFile::write(path, *gShared->options_))
        SystemLog::write("Error: cannot write the options file " + path);
}

void OptionsMan::LoadOptions() {
    guarded("Error: OptionsMan::LoadOptions", [] { load(getOptionsFile()); });
}

void OptionsMan::LoadPublicOptions() {
    guarded("Error: OptionsMan::LoadPublicOptions", [] { load(getPublicOptionsFile()); });
}

void OptionsMan::SaveOptions() {
    guarded("Error: OptionsMan::SaveOptions", [] { save(getOptionsFile()); });
}

void OptionsMan::SavePublicOptions() {
    guarded("Error: OptionsMan::SavePublicOptions", [] { save(getPublicOptionsFile()); });
}

std::string OptionsMan::getOptionsFile() {
    return guarded("Error: OptionsMan::getOptionsFile", std::string(), [] {
        std::string customerID = TransferApiUtil::shareTransferApiUtil().customerID();
        if (!isFolderName(customerID)) {
            SystemLog::write("Error: the customer ID cannot name an options folder");
            return std::string();
        }
        return optionsFileIn(customerID);
    });
}

std::string OptionsMan::getPublicOptionsFile() {
    return guarded("Error: OptionsMan::getPublicOptionsFile", std::string(),
                   [] { return optionsFileIn(""); });
}

} // namespace cirrovault

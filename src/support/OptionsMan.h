#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/framework/PropertyList.h"

namespace cirrovault {

// Group and option keys of Options.plist, offered to the host as they are.
inline constexpr const char* MyOptionsKey = "MyOptions";
inline constexpr const char* SystemOptionsKey = "SystemOptions";
inline constexpr const char* EventLogKey = "EventLog";
inline constexpr const char* AutoScheduleTypeKey = "AutoScheduleType";
inline constexpr const char* AutoStartMinutesKey = "Minutes";
inline constexpr const char* AutoRunKey = "AutoRunLogon";
inline constexpr const char* CacheSizeKey = "CacheSize"; // reserved, no accessor
inline constexpr const char* CachePathKey = "CachePath"; // reserved, no accessor
inline constexpr const char* UseSSLKey = "UseSSL";
inline constexpr const char* reportEmailKey = "ReportEmail";
inline constexpr const char* reportWhenErrorKey = "ReportWhenError";
inline constexpr const char* reportWhenFinishKey = "ReportWhenFinish";
inline constexpr const char* TransfersKey = "Transfers";

// The user's options: a three-level dictionary (group → option → value) kept in
// "Options.plist", one public file for the machine and one per account. Both load into
// the same in-memory set; whichever was loaded last is what the getters see and what a
// save writes. Every operation is static and works on one shared instance.
//
// All access goes through the class lock, so a worker that loads and reads while the
// main thread sets never races; the lock is only held for in-memory work and the one
// file read or write.
class OptionsMan {
public:
    static std::shared_ptr<OptionsMan> shareTaskOptionsMan();
    // Drops the shared instance; the next use starts from an empty set.
    static void clearnOptionsManClass();

    // Adds an empty dictionary for each missing group; existing groups stay as they are.
    static void initOptions();

    static bool IsAutoRun();
    static void SetAutoRun(bool autoRun);
    static bool IsUseSSL();
    static void SetUseSSL(bool useSSL);
    static bool IsAutoStartScheduleAfterMinutes();
    static void SetAutoStartScheduleAfterMinutes(bool autoStart);
    static uint32_t intervalMinutes();
    static void SetIntervalMinutes(uint32_t minutes);
    static std::string reportEmail();
    static void setReportEmail(const std::string& reportEmail);
    static bool IsReportWhenError();
    static void SetReportWhenError(bool report);
    static bool IsReportWhenFinish();
    static void SetReportWhenFinish(bool report);
    // Files sent at once to a store that gains from it (a network store), each on a
    // connection of its own; 1 sends one file after the other.
    static uint32_t transfers();
    static void SetTransfers(uint32_t transfers);
    static constexpr uint32_t DefaultTransfers = 4;
    static constexpr uint32_t MaxTransfers = 16;

    // Replace the in-memory set by the file's content. A missing file changes nothing;
    // a file that is not a property-list dictionary leaves no options at all, so every
    // getter answers its default until a fresh instance or a good load.
    static void LoadOptions();
    static void LoadPublicOptions();
    // Write the in-memory set whole and atomically; failures are logged only.
    static void SaveOptions();
    static void SavePublicOptions();

    // AppSupport/<CacheRootFolderName>/Options/OnlineBackup[/<customer ID>]/Options.plist;
    // the containing folder is created. "Options.plist" alone when there is no
    // application-support folder; empty when the customer ID cannot name a folder.
    static std::string getOptionsFile();
    static std::string getPublicOptionsFile();

    // A copy of the in-memory set; nothing after a damaged file was loaded.
    static std::optional<PropertyList> options();

private:
    OptionsMan();
    static std::optional<bool> boolOption(const char* group, const char* key);
    static void setOption(const char* group, const char* key, PropertyList value);
    static void load(const std::string& path);
    static void save(const std::string& path);

    std::optional<PropertyList> options_; // guarded by the class lock
};

} // namespace cirrovault

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/framework/NimboMessagebox.h"

namespace cirrovault {

// What the system tells of one local item: the flags asked for and the item's type,
// creator and extension.
struct ItemInfoRecord {
    uint32_t flags = 0;     // the request flags the record answers
    std::string fileType;   // "Regular", "Directory", "SymbolicLink" or "Other"
    std::string creator;    // no such thing on Linux: always empty
    std::string extension;  // text after the last dot of the name, without the dot
};

// Shared helpers of the engine: names, size and date texts, list/text conversion,
// name validation, the local-against-server file comparison, random numbers, the
// dialogs worker code asks for, re-logon and the server folders. All static.
class GlobalFunction {
public:
    // Names
    static std::string GetMachineName();
    static std::string getPCName();
    static std::string GetCurrentUserName();

    // Local files
    static bool isFileExists(const std::string& path);
    static bool isFileExistsAndIsDirectory(const std::string& path);
    static std::optional<std::vector<std::string>> getSubPath(const std::string& folder);
    static ItemInfoRecord getItemInfo(uint32_t requestFlags, const std::string& forPath);
    // Answers true whatever the item is: never use it to detect hidden items.
    static bool isInvisible(const std::string& path);

    // Texts
    static std::string stringAppendString(const std::string& a, const std::string& strAppendValue);
    static std::string stringFromFileSize(uint64_t size);
    static std::string localDateFromServerDate(const std::string& serverDate);
    static std::string stringFromNSArray(const std::vector<std::string>& list,
                                         const std::string& formatType);
    static std::optional<std::vector<std::string>> arrayFromString(const std::string& text,
                                                                   const std::string& formatType);
    static bool ValidNameFmt(const std::string& name);
    static std::string stringByTrimmingLeadingWhitespace(const std::string& text);
    static bool IsWindowsBackupTask(const std::string& path);
    static std::string GetWinDriveName(const std::string& path);

    // Application folder of the logged-on account (product folder when none).
    static std::string GetOBCurrentAppPath();

    // 1 same, 2 not on the server, 4 local newer, 5 local older, 6 local date unknown.
    static int ISserverLocalSameFile(const std::string& serverPath, const std::string& localPath);

    // A new identity number (1 to 2147483647) from the system's random source.
    static int getRandom();
    static int getTaskIDRandom();

    // Dialogs (main thread, or through the wait-loop dialog)
    static std::string openFolderPanel();
    static int MessageBox(const std::string& message, int style);
    static bool SpaceLimitRetry(const std::string& message);
    static bool SpaceLimitAlter(int dialogStyle, const std::string& strMsg);

    // Service session
    static int64_t MySimpleLogon(const std::string& userName, const std::string& psw);
    static bool reLogon(bool flag);
    static bool openURL();

    // Server folders. The code goes out through iRet (may be null); codes 0 and above 9
    // count as success.
    static bool CreateSrvFolder(const std::string& path, const std::string& desc,
                                const std::string& strCaption, int64_t* iRet);
    static bool CreateSrvHistoryFolder(const std::string& path, const std::string& desc,
                                       const std::string& strCaption, int64_t* iRet);
    // ApplicationDataPath\ServerStoreTaskPath\name, made if missing; empty on failure.
    static std::string getSvrAppFolder(const std::string& name, const std::string& strDesc);
};

} // namespace cirrovault

#include "support/CErrorLog.h"

#include "platform/framework/Functions.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/Date.h"
#include "platform/os/FileSystem.h"
#include "platform/os/Guarded.h"
#include "platform/os/SystemLog.h"
#include "support/CFileInfo.h"

namespace cirrovault {

namespace {

// Serialises writers, the reader and the clear; also guards the shared instance.
std::mutex gClassMutex;
std::shared_ptr<CErrorLog> gShared; // guarded by gClassMutex

const char* const kFileName = "errlog.log";
// 4.5 printed with "%f\n": nine bytes, rewritten at offset 0 before every record.
const char* const kFormatMark = "4.500000\n";

std::string replaceAll(const std::string& text, const std::string& from, const std::string& to) {
    std::string result;
    result.reserve(text.size());
    size_t start = 0;
    for (size_t found; (found = text.find(from, start)) != std::string::npos;
         start = found + from.size()) {
        result.append(text, start, found - start);
        result += to;
    }
    result.append(text, start, std::string::npos);
    return result;
}

// The account's log folder, or nothing when the customer ID cannot name a folder.
std::optional<std::string> accountFolder() {
    std::string folder = CFileInfo::getDataFolderPath();
    if (folder.empty())
        return std::nullopt;
    std::string customerID = TransferApiUtil::shareTransferApiUtil().customerID();
    if (customerID.empty())
        return folder;
    if (customerID == "." || customerID == ".." || customerID.find('/') != std::string::npos) {
        SystemLog::write("Error: the customer ID cannot name an event log folder");
        return std::nullopt;
    }
    return CFileInfo::MacPathAppend(folder, customerID);
}

std::string kindLabel(int32_t nType) {
    switch (nType) {
    case 0:
        return LoadString::GetValueByKey("eventLogNormal", "");
    case 1:
        return LoadString::GetValueByKey("eventLogWarning", "");
    case 2:
        return LoadString::GetValueByKey("eventLogError", "");
    default:
        return "";
    }
}

} // namespace

std::shared_ptr<CErrorLog> CErrorLog::shareTaskErrorLog() {
    return guarded("Error: CErrorLog::shareTaskErrorLog", std::shared_ptr<CErrorLog>(), [] {
        std::lock_guard lock(gClassMutex);
        if (!gShared)
            gShared.reset(new CErrorLog());
        return gShared;
    });
}

void CErrorLog::releaseErrorLogClass() {
    std::lock_guard lock(gClassMutex);
    gShared.reset();
}

std::string CErrorLog::strErrorFilePath() const {
    std::lock_guard lock(pathMutex_);
    return strErrorFilePath_;
}

void CErrorLog::setStrErrorFilePath(const std::string& path) {
    std::lock_guard lock(pathMutex_);
    strErrorFilePath_ = path;
}

std::string CErrorLog::createErrorLogFile() {
    return guarded("Error: CErrorLog::createErrorLogFile", std::string(), [] {
        auto folder = accountFolder();
        if (!folder || !CFileInfo::CreateSubDir(*folder)) {
            SystemLog::write("Error: cannot create the event log folder");
            return std::string();
        }
        return *folder;
    });
}

std::string CErrorLog::GetEventLogFilePath() {
    return guarded("Error: CErrorLog::GetEventLogFilePath", std::string(), [] {
        auto folder = accountFolder();
        return folder ? CFileInfo::MacPathAppend(*folder, kFileName) : std::string();
    });
}

bool CErrorLog::recordError(const std::string& taskName, int32_t taskID,
                            const std::string& errDesc, int32_t nType) {
    return guarded("Error: CErrorLog::recordError", false, [&] {
        std::lock_guard lock(gClassMutex);
        std::string folder = createErrorLogFile();
        if (folder.empty())
            return false;
        std::string path = CFileInfo::MacPathAppend(folder, kFileName);
        if (!gShared)
            gShared.reset(new CErrorLog());
        gShared->setStrErrorFilePath(path);
        if (!CFileInfo::isFile(path) && !CFileInfo::CreateFile(path)) {
            SystemLog::write("Error: cannot create the event log " + path);
            return false;
        }
        std::string time = Functions::stringTransFromedDate(Date::now(), "yyyy-MM-dd HH:mm:ss");
        std::string record = taskName + "|" + std::to_string(taskID) + "|" +
                             EncodeEventMsg(errDesc).value_or("") + "|" + time + "|" +
                             kindLabel(nType) + "\n";
        if (!FileSystem::writeHeadAndAppend(path, kFormatMark, record)) {
            SystemLog::write("Error: cannot write the event log " + path);
            return false;
        }
        return true;
    });
}

std::optional<std::vector<std::string>> CErrorLog::GetErrorList() {
    using List = std::optional<std::vector<std::string>>;
    return guarded("Error: CErrorLog::GetErrorList", List(), []() -> List {
        std::lock_guard lock(gClassMutex);
        // Deliberately the file of the last record of this process, not the account's
        // current path: nothing is listed before this process has written.
        std::string path = gShared ? gShared->strErrorFilePath() : std::string();
        if (path.empty() || !FileSystem::exists(path))
            return std::vector<std::string>();
        auto content = FileSystem::readFile(path);
        if (!content) {
            SystemLog::write("Error: cannot read the event log " + path);
            return std::nullopt;
        }
        std::vector<std::string> lines;
        size_t start = 0;
        for (size_t end; (end = content->find('\n', start)) != std::string::npos; start = end + 1)
            lines.push_back(content->substr(start, end - start));
        lines.push_back(content->substr(start));
        return lines;
    });
}

bool CErrorLog::clearAllEventLog() {
    return guarded("Error:clearAllEventLog", false, [] {
        std::lock_guard lock(gClassMutex);
        CFileInfo::deleteFile(GetEventLogFilePath()); // logs when there was no file
        return true;
    });
}

std::optional<std::string> CErrorLog::EncodeEventMsg(const std::optional<std::string>& msg) {
    using Text = std::optional<std::string>;
    return guarded("Error: CErrorLog::EncodeEventMsg", Text(), [&]() -> Text {
        if (!msg)
            return std::nullopt;
        // "%" first, so the "%" that "%7c" brings in is not escaped again.
        return replaceAll(replaceAll(*msg, "%", "%25"), "|", "%7c");
    });
}

std::optional<std::string> CErrorLog::DecodeEventMsg(const std::optional<std::string>& msg) {
    using Text = std::optional<std::string>;
    return guarded("Error: CErrorLog::DecodeEventMsg", Text(), [&]() -> Text {
        if (!msg)
            return std::nullopt;
        return replaceAll(replaceAll(*msg, "%7c", "|"), "%25", "%");
    });
}

} // namespace cirrovault

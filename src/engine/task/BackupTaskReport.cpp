#include <algorithm>
#include <exception>

#include "engine/task/CBackupTask.h"
#include "platform/framework/Functions.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/NimboSetting.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/Clock.h"
#include "platform/os/DesktopNotifier.h"
#include "platform/os/SystemLog.h"
#include "support/CErrorLog.h"
#include "support/GlobalFunction.h"
#include "support/OptionsMan.h"

namespace cirrovault {

namespace {

constexpr uint64_t kCancelled = 6;
constexpr uint64_t kSubItemLimit = 73;
constexpr int kSubItemLimitCount = 1000; // the business accounts' items per folder
constexpr int32_t kErrorEntry = 2;

std::string mailTime() {
    return Functions::stringTransFromedDate(Clock::shared().now(), "yyyy-MM-dd HH:mm:ss");
}

// The run's figures, below each report's text.
std::string reportFigures(const CBackupTask& task) {
    double seconds = std::max(0.0, Clock::shared().now().timeIntervalSinceDate(task.runStartDate));
    auto whole = static_cast<uint64_t>(seconds);
    size_t problems = task.leftOutPaths.size() + (task.bHaveErr ? 1 : 0);
    return LoadString::Format("ReportFigures", task.nScanTotalFiles,
                              GlobalFunction::stringFromFileSize(task.fileTotalSize),
                              GlobalFunction::stringFromFileSize(task.uiTaskCurrentUploadSize),
                              task.uiMaxVersion > 0 ? task.uiMaxVersion - 1 : 0, problems,
                              LoadString::Format("TimeFormat", whole / 3600, whole / 60 % 60, whole % 60));
}

// Off only when the user said so: a desktop that has a notification service shows them.
bool desktopNotificationsWanted() {
    std::string setting = NimboSetting::GetSettingValueForKey("DesktopNotifications", "");
    return setting != "0" && setting != "no" && setting != "off" && setting != "false";
}

} // namespace

void CBackupTask::getBackupTaskResult(uint64_t code, const std::string& logServerPath,
                                      const std::string& logUploadPath) {
    try {
        if (code == 0 || code == kCancelled)
            return;
        if (code == kSubItemLimit) {
            std::string message =
                LoadString::Format("OrvoSubItemLimitation", logServerPath, kSubItemLimitCount);
            strErrLog = message;
            CErrorLog::recordError(name, taskID, message, kErrorEntry);
            bHaveErr = true;
            // The limit message stands twice in the event log; the host's log view
            // has always shown it that way.
            CErrorLog::recordError(name, taskID, message, kErrorEntry);
            return;
        }
        std::string codeText = TransferApiUtil::stringWithReturnCode(static_cast<int64_t>(code));
        std::string message =
            logUploadPath.empty() || logServerPath.empty()
                ? codeText
                : LoadString::Format("StrLogUploadFail", logUploadPath, logServerPath, codeText);
        strErrLog = message;
        bHaveErr = true;
        CErrorLog::recordError(name, taskID, message, kErrorEntry);
    } catch (const std::exception&) {
        SystemLog::write("Error: getBackupTaskResult");
    }
}

void CBackupTask::sendLogByEmail(int code) {
    try {
        std::string figures = reportFigures(*this);
        if (desktopNotificationsWanted()) {
            std::string time = mailTime();
            // One notice a run: the failure, else the finish (a cancel is the user's own doing).
            if (bHaveErr)
                DesktopNotifier::notify(LoadString::Format("FailEmailTitle", name, mPCName, time),
                                        strErrLog.value_or(""), true);
            else if (code != static_cast<int>(kCancelled))
                DesktopNotifier::notify(LoadString::Format("SuccessEmailTitle", name, mPCName, time),
                                        figures, false);
        }
        OptionsMan::shareTaskOptionsMan();
        OptionsMan::LoadOptions();
        std::string address = OptionsMan::reportEmail();
        if (address.empty())
            return;
        TransferApiUtil& service = TransferApiUtil::shareTransferApiUtil();
        std::string product = LoadString::GetValueByKey("ProductName", "");
        // Both mails may go out for one failed run: the failure report and the
        // completion report are separate choices of the user.
        if (bHaveErr && OptionsMan::IsReportWhenError()) {
            std::string time = mailTime();
            service.SendEmailToUser(
                address, LoadString::Format("FailEmailTitle", name, mPCName, time),
                LoadString::Format("FalilEmailBoty", product, name, time, strErrLog.value_or("")) +
                    "\n\n" + figures);
        }
        if (code == static_cast<int>(kCancelled))
            return;
        if (OptionsMan::IsReportWhenFinish()) {
            std::string time = mailTime();
            service.SendEmailToUser(address,
                                    LoadString::Format("SuccessEmailTitle", name, mPCName, time),
                                    LoadString::Format("SuccessEmailBoby", product, name, time) +
                                        "\n\n" + figures);
        }
    } catch (const std::exception&) {
        SystemLog::write("Error: sendLogByEmail");
    }
}

} // namespace cirrovault

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <exception>

#include "engine/task/CBackupTask.h"
#include "platform/framework/AccountBalance.h"
#include "platform/framework/Functions.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/PathTreeController.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/ServerName.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/SystemLog.h"
#include "platform/store/StoreBackend.h"
#include "support/CFileAttributes.h"
#include "support/CFileInfo.h"
#include "support/GlobalFunction.h"

namespace cirrovault {

namespace {

constexpr uint64_t kEncryptedExtra = 128; // an encrypted copy is this much longer
constexpr int64_t kScanWindow = 2;         // seconds forgiven by the scan on coarse stores
constexpr double kOneHour = 3600;
constexpr int kPromptSomeSpaceLeft = 8;
constexpr int kPromptNoSpaceLeft = 6;

// Free bytes of the account; may be negative.
int64_t freeSpaceOf(const AccountBalance& balance) {
    return balance.maxSpace - balance.fileSpaceUsed - balance.msgSpaceUsed;
}

// free − needed > 0, without overflow for any needed.
bool roomFor(int64_t freeSpace, uint64_t needed) {
    return freeSpace > 0 && static_cast<uint64_t>(freeSpace) > needed;
}

} // namespace

bool CBackupTask::CalculateBackupFileSize(const std::string& localFile) {
    try {
        CFileAttributes attributes(localFile);
        if (!attributes.getFileAttibutes() || !attributes.modifyDate) {
            SystemLog::write("Error: CalculateBackupFileSize cannot read " + localFile);
            return false;
        }
        return CalculateBackupFileSize(localFile, static_cast<uint64_t>(attributes.fileSize),
                                       *attributes.modifyDate);
    } catch (const std::exception&) {
        SystemLog::write("Error: CalculateBackupFileSize");
        return false;
    }
}

bool CBackupTask::CalculateBackupFileSize(const std::string& localFile, uint64_t size,
                                          Date modifyDate) {
    try {
        if (RegexFun(localFile, filterExt, false) || leftOutByName(localFile))
            return false;
        std::string folder = getTargetSvrFolder(localFile, true);
        std::string serverFile =
            CFileInfo::serverPathAppend(folder, ServerName::encode(CFileInfo::getMacFileName(localFile, false)));
        uint64_t extra = Functions::IsEncryptPath(serverFile) ? kEncryptedExtra : 0;

        // The path tree lists each server folder once and remembers the ones it did not
        // find, so the later files of a folder are answered from memory.
        PathTreeController& tree = TransferApiUtil::sharePathTreeController();
        PathInfo stored;
        if (!tree.FindPath(serverFile, stored, false)) {
            PathInfo part;
            bool interrupted = false;
            PathInfo folderInfo;
            if (tree.FindPath(folder, folderInfo, false))
                interrupted = tree.FindPath(serverFile + ".part", part, false);
            scanFileArray.push_back(localFile);
            fileTotalSize += size;
            if (!interrupted)
                uiNeedSpace += size + extra;
            else // the upload resumes: what is already there is not charged twice
                uiRemoteSize = part.iSize >= uiRemoteSize ? 0 : uiRemoteSize - part.iSize;
            return true;
        }

        if (storedCopyIsCurrent(size, modifyDate, stored.iSize, stored.modifyTime, extra != 0,
                                storeTimePrecision(), kScanWindow))
            return false;
        uiNeedSpace += size; // the whole file, and no extra for a changed one
        scanFileArray.push_back(localFile);
        fileTotalSize += size;
        return true;
    } catch (const std::exception&) {
        SystemLog::write("Error: CalculateBackupFileSize");
        return false;
    }
}

// A size difference is always a change, and a store that keeps exact times is trusted
// to the nanosecond: a window over equal sizes would hide an edit saved within it. Only
// a store that rounds times to seconds needs the window; the one-hour shift of a moved
// clock is forgiven everywhere, and only with the same size.
bool CBackupTask::storedCopyIsCurrent(uint64_t localSize, Date localTime, uint64_t storedSize,
                                      Date storedTime, bool encrypted, double timePrecision,
                                      int64_t window) {
    if (localSize + (encrypted ? kEncryptedExtra : 0) != storedSize)
        return false;
    double apart = std::fabs(localTime.timeIntervalSinceDate(storedTime));
    if (timePrecision < 1) {
        // A double holds today's times to a fraction of a microsecond.
        double same = std::max(timePrecision, 1e-6);
        return apart < same || std::fabs(apart - kOneHour) < same;
    }
    double seconds = std::trunc(apart);
    double forgiven = static_cast<double>(std::max<int64_t>(window, 0));
    return seconds <= forgiven || std::fabs(seconds - kOneHour) <= forgiven;
}

double CBackupTask::storeTimePrecision() {
    std::shared_ptr<StoreBackend> store = TransferApiUtil::shareTransferApiUtil().backend();
    return store ? store->capabilities().modifyTimePrecision : 1;
}

void CBackupTask::getPartSizeFromSever(const std::string& localFile) {
    try {
        PathInfo part;
        if (!TransferApiUtil::sharePathTreeController().FindPath(
                CFileInfo::serverPathAppend(getTargetSvrFolder(localFile, true),
                                            ServerName::encode(CFileInfo::getMacFileName(localFile, false))) +
                    ".part", part, false))
            return;
        uiRemoteSize = part.iSize >= uiRemoteSize ? 0 : uiRemoteSize - part.iSize;
    } catch (const std::exception&) {
        SystemLog::write("Error: getPartSizeFromSever");
    }
}

bool CBackupTask::CheckAccountSpace(uint64_t needed) {
    try {
        for (;;) {
            AccountBalance balance;
            int64_t code = TransferApiUtil::shareTransferApiUtil().GetAccountBalance(balance);
            iBackupRet = static_cast<uint64_t>(code);
            // The task's own network test always passes; only the service's code counts.
            if (code != ResultCode::Success)
                return false;
            int64_t freeSpace = freeSpaceOf(balance);
            if (roomFor(freeSpace, needed))
                return true;
            if (needed == 0)
                SystemLog::write("needspace is zero.");

            std::string text;
            if (freeSpace < 1) {
                text = LoadString::Format("NeedMoreBuySpace", freeSpace / 1048576);
                if (!GlobalFunction::SpaceLimitAlter(kPromptNoSpaceLeft, text))
                    break;
            } else {
                text = LoadString::Format("IDS_NEEDMOREBUYSPACE", name, (needed + 0xFFFFF) >> 20,
                                          freeSpace >> 20);
                if (!GlobalFunction::SpaceLimitAlter(kPromptSomeSpaceLeft, text)) {
                    iBackupRet = ResultCode::Success; // declined: the run ends quietly
                    return false;
                }
            }
            if (!GlobalFunction::SpaceLimitRetry(text))
                break;
        }
        iBackupRet = ResultCode::SpaceLimit;
        bHaveErr = true;
        return false;
    } catch (const std::exception&) {
        // A failure inside the check must not stop the backup.
        SystemLog::write("Error:CheckAccountSpace");
        return true;
    }
}

bool CBackupTask::CheckFreeSpaceFromServer(uint64_t needed, CBackupTask* task, int64_t* result) {
    if (!task) {
        SystemLog::write("Error: CheckFreeSpaceFromServer without a task");
        std::abort();
    }
    try {
        for (;;) {
            AccountBalance balance;
            int64_t code = TransferApiUtil::shareTransferApiUtil().GetAccountBalance(balance);
            if (result)
                *result = code;
            if (code != ResultCode::Success)
                return false;
            int64_t freeSpace = freeSpaceOf(balance);
            if (roomFor(freeSpace, needed))
                return true;

            std::string neededText = Functions::FormatSizeToString(needed);
            std::string freeText =
                (freeSpace < 0 ? "-" : "") +
                Functions::FormatSizeToString(static_cast<uint64_t>(std::llabs(freeSpace)));
            // Suggest twice the shortfall.
            uint64_t shortfall = needed - static_cast<uint64_t>(freeSpace);
            std::string suggestedText = Functions::FormatSizeToString(2 * shortfall);
            std::string text =
                freeSpace != 0
                    ? LoadString::Format("IDS_STRNEEDMORESPACE", task->name, neededText, freeText,
                                         suggestedText)
                    : LoadString::Format("SubUserHaveBuyStorageSpace", task->name, neededText,
                                         freeText);
            if (!GlobalFunction::SpaceLimitAlter(kPromptSomeSpaceLeft, text))
                return true; // the user goes on anyway
            if (!GlobalFunction::SpaceLimitRetry(LoadString::GetValueByKey("IDS_REBACKAGAIN", "")))
                return false;
        }
    } catch (const std::exception&) {
        // Only a broken invariant gets here; going on would hide it.
        SystemLog::write("Error: CheckFreeSpaceFromServer");
        std::abort();
    }
}

} // namespace cirrovault

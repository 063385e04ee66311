#include <exception>

#include "engine/task/CBackupTask.h"
#include "platform/framework/Functions.h"
#include "platform/os/SystemLog.h"
#include "support/GlobalFunction.h"

namespace cirrovault {

namespace {

constexpr const char* kDateFormat = "yyyy-MM-dd HH:mm:ss";
constexpr double kThirtyDays = 2'592'000.0;

Date defaultDate(const char* text) {
    if (auto date = Functions::dayTransFromedString(text, kDateFormat))
        return *date;
    SystemLog::write(std::string("Error: CBackupTask cannot read the default date ") + text);
    return Date();
}

} // namespace

CBackupTask::CBackupTask() {
    try {
        Date now = Date::now();
        mPCName = GlobalFunction::getPCName();
        taskID = static_cast<int32_t>(GlobalFunction::getTaskIDRandom());
        mBeginDate = now.addingTimeInterval(-kThirtyDays);
        mEndDate = defaultDate("2099-1-1 00:00:00");
        mDating = now;
        Date past = defaultDate("1971-1-1 00:00:00");
        mBackupDate = past;
        mLastDating = past;
        mResumeDate = past;
        mLastRunDate = past;
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupTask::init()");
    }
}

void CBackupTask::AddSrcPath(const std::string& path) {
    try {
        bool folder = GlobalFunction::isFileExistsAndIsDirectory(path);
        localDirList.emplace_back(SourceInfo::InitSourceInfoWith(path, 1, folder));
    } catch (const std::exception&) {
        SystemLog::write("Error:CBackupTask::AddSrcPath()");
    }
}

void CBackupTask::AddSrcPathList(const std::vector<std::string>& paths) {
    for (const auto& path : paths)
        AddSrcPath(path);
}

void CBackupTask::ClearSrcList() {
    try {
        localDirList.clear();
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupTask::ClearSrcList()");
    }
}

void CBackupTask::ReplaceLocalList(const std::vector<std::string>& paths) {
    ClearSrcList();
    AddSrcPathList(paths);
}

bool CBackupTask::IsInSourceList(const std::string& path) {
    try {
        for (const auto& entry : localDirList) {
            if (entry.record().m_strPath == path)
                return true;
        }
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupTask::IsInSourceList()");
    }
    return false;
}

// Same walk and the same log line as IsInSourceList: both names are in use.
bool CBackupTask::IsInBackupList(const std::string& path) {
    return IsInSourceList(path);
}

std::optional<SourceInfo> CBackupTask::GetSrcItem(const std::string& path) {
    try {
        for (const auto& entry : localDirList) {
            if (entry.record().m_strPath == path)
                return entry.record();
        }
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupTask::GetSrcItem()");
    }
    return std::nullopt;
}

bool CBackupTask::IsSameSrcList(const std::vector<SourceInfo>& srcList) {
    // The walk only finds where the lists part; the answer is false either way, so an
    // edited source list is always sent again.
    try {
        if (srcList.size() != localDirList.size())
            return false;
        for (size_t i = 0; i < srcList.size(); ++i) {
            const SourceInfo& mine = localDirList[i].record();
            if (mine.m_strPath != srcList[i].m_strPath || mine.m_bFolder != srcList[i].m_bFolder)
                break;
        }
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupTask::IsSameSrcList()");
    }
    return false;
}

std::string CBackupTask::GetFirstSrcPath() {
    try {
        if (!localDirList.empty()) {
            const std::string& first = localDirList.front().path();
            if (!first.empty())
                return first;
        }
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupTask::GetFirstSrcPath");
    }
    return "";
}

bool CBackupTask::RenameTask(const std::string& /*newName*/) {
    return true;
}

bool CBackupTask::RenamePath(const std::string& /*oldPath*/, const std::string& /*newPath*/) {
    return !bDeleting;
}

} // namespace cirrovault

#include <algorithm>
#include <cctype>
#include <exception>

#include "engine/manager/CBackupManage.h"
#include "platform/framework/Functions.h"
#include "platform/os/ResultCodes.h"
#include "platform/os/Guarded.h"
#include "platform/os/SystemLog.h"
#include "service/CManageTaskList.h"
#include "support/CFileInfo.h"
#include "support/GlobalFunction.h"

namespace cirrovault {

namespace {

std::string sourcePath(const SourceEntry& entry) {
    return entry.isRecord() ? entry.record().m_strPath : entry.path();
}

// White space off both ends, then lower case: the restore view compares paths so.
std::string restoreKey(const std::string& text) {
    auto blank = [](unsigned char c) { return std::isspace(c) != 0; };
    auto first = std::find_if_not(text.begin(), text.end(), blank);
    auto last = std::find_if_not(text.rbegin(), text.rend(), blank).base();
    std::string key = first < last ? std::string(first, last) : std::string();
    std::transform(key.begin(), key.end(), key.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return key;
}

} // namespace

bool CBackupManage::MigrateTaskToCurrentPC(const std::string& newRoot, const TaskPtr& pTask,
                                           int32_t nMigrateOSBackupType) {
    return guarded("Error: CBackupManage::MigrateTaskToCurrentPC()", false, [&] {
        if (!pTask)
            return false;
        CBackupTask& task = *pTask;
        task.pcID = pcID;
        task.mPCName = GlobalFunction::GetMachineName();

        std::vector<std::string> oldPaths;
        for (const auto& entry : task.localDirList)
            oldPaths.push_back(sourcePath(entry));
        task.deleteFileArray = oldPaths;

        std::string reference;
        if (nMigrateOSBackupType == 3)
            reference = task.GetTopFolder();
        else if (!oldPaths.empty())
            reference = CFileInfo::getServerParentFolder(oldPaths.front());

        task.ClearSrcList();
        for (const auto& oldPath : oldPaths) {
            std::string newPath;
            if (nMigrateOSBackupType == 3) {
                newPath = CFileInfo::MacPathAppend(newRoot,
                                                   CFileInfo::getMacSubFolder(oldPath, reference));
                SystemLog::write("Migrate mac new path: " + newPath);
            } else if (nMigrateOSBackupType == 2) {
                std::string sub = CFileInfo::getServerSubFolder(oldPath, reference);
                newPath =
                    CFileInfo::MacPathAppend(newRoot, CFileInfo::convertServerPathToMacPath(sub));
                SystemLog::write("Migrate new path: " + newPath);
            } else {
                newPath = CFileInfo::MacPathAppend(newRoot, GlobalFunction::GetWinDriveName(oldPath));
                SystemLog::write("Migrate win drive new path: " + newPath);
            }
            task.addFileArray.push_back(newPath);
            task.localDirList.emplace_back(newPath);
        }

        CManageTaskList manageTaskList;
        TaskListEntry entry = task.toTaskListEntry();
        int32_t code = manageTaskList.addOrEditBackupTask(entry, "Edit", "", task.name, "1");
        task.addFileArray.clear();
        task.deleteFileArray.clear();
        if (code != ResultCode::Success) {
            GlobalFunction::MessageBox(manageTaskList.showManageTaskListResult(code, 0), 0);
            task.sourceInfoArray.clear();
            return false;
        }
        return true;
    });
}

void CBackupManage::GetTaskInformationForRestoreView(const std::string& name) {
    guarded("Error: CBackupManage::GetTaskInformationForRestoreView()", [&] {
        TaskPtr task = GetTaskByName(name);
        if (!task)
            return;
        if (task->localDirList.empty())
            task->loadFilePathListFromDB();

        std::string first = task->localDirList.empty() ? std::string()
                                                       : sourcePath(task->localDirList.front());
        if (task->bMigrateTask && GlobalFunction::IsWindowsBackupTask(first)) {
            std::string parent = CFileInfo::GetWINLocalParentPath(first);
            if (!parent.empty()) {
                taskBackupLogLocalPath = parent;
                nOSBackupDataType = 2;
            } else if (task->localDirList.size() > 1) {
                taskBackupLogLocalPath = "";
                nOSBackupDataType = 0;
            } else {
                taskBackupLogLocalPath = first;
                nOSBackupDataType = 1;
            }
        } else {
            nOSBackupDataType = 3;
            taskBackupLogLocalPath = task->GetTopFolder();
        }
        taskServerPath = task->serverPath;
        taskHistoryPath = task->getSvrHistoryFolder(Functions::IsEncryptPath(task->serverPath));
    });
}

bool CBackupManage::IsWorkingTaskForRestore(const std::string& name) {
    return guarded("Error: CBackupManage::IsWorkingTaskForRestore()", false, [&] {
        TaskPtr task = GetTaskByName(name);
        return task ? isWorkingTask(task) : true;
    });
}

void CBackupManage::SetRestoreWorkingFile(const std::optional<std::string>& localPath,
                                          const std::optional<std::string>& svrPath) {
    setWrokingFile(localPath, svrPath);
}

void CBackupManage::setWrokingFile(const std::optional<std::string>& localPath,
                                   const std::optional<std::string>& svrPath) {
    guarded("Error: CBackupManage::setWrokingFile()", [&] {
        strWorkingFile = localPath ? restoreKey(*localPath) : std::string();
        strServerWorkingFile = svrPath ? restoreKey(*svrPath) : std::string();
    });
}

} // namespace cirrovault

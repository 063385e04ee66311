#include <exception>

#include "engine/task/CBackupTask.h"
#include "platform/os/SystemLog.h"
#include "service/CManageTaskList.h"

namespace cirrovault {

TaskListEntry CBackupTask::toTaskListEntry() {
    TaskListEntry entry;
    try {
        entry.taskID = taskID;
        entry.pcID = pcID;
        entry.name = name;
        entry.description = description;
        entry.mPCName = mPCName;
        entry.taskType = taskType;
        entry.mBackupDate = mBackupDate;
        entry.serverPath = serverPath;
        entry.filterExt = filterExt;
        entry.filtedPath = filtedPath;
        entry.uiMaxVersion = uiMaxVersion;
        entry.mDating = mDating;
        entry.mBeginDate = mBeginDate;
        entry.mEndDate = mEndDate;
        entry.mResumeDate = mResumeDate;
        entry.uiRemoteSize = uiRemoteSize;
        entry.bResume = bResume;
        for (const auto& source : localDirList)
            entry.localDirList.push_back(source.isRecord() ? source.record().m_strPath
                                                           : source.path());
        entry.deleteFileArray = deleteFileArray;
        entry.addFileArray = addFileArray;
        entry.sourceInfoArray = sourceInfoArray;
        entry.bMigrateTask = bMigrateTask;
        entry.bOnlyMigrateTaskOrignalPath = bOnlyMigrateTaskOrignalPath;

        std::weak_ptr<CBackupTask> weak = weak_from_this();
        if (weak.expired()) {
            // A task outside shared ownership: the entry is used while the task lives.
            entry.getSvrHistoryFolder = [this](bool bEncrypted) {
                return getSvrHistoryFolder(bEncrypted);
            };
        } else {
            entry.getSvrHistoryFolder = [weak](bool bEncrypted) {
                auto task = weak.lock();
                return task ? task->getSvrHistoryFolder(bEncrypted) : std::string();
            };
        }
    } catch (const std::exception&) {
        SystemLog::write("Error: toTaskListEntry");
    }
    return entry;
}

bool CBackupTask::uploadTaskList(const std::string& action, const std::string& taskName) {
    try {
        CManageTaskList taskList;
        TaskListEntry entry = toTaskListEntry();
        int32_t code = taskList.addOrEditBackupTask(entry, action, "0", taskName, "1");
        // A rename on the service moves the task's folder; follow it.
        serverPath = entry.serverPath;
        if (code != 0) {
            SystemLog::write(taskList.showManageTaskListResult(code, 0));
            return false;
        }
        return true;
    } catch (const std::exception&) {
        SystemLog::write("Error: uploadTaskList");
        return false;
    }
}

} // namespace cirrovault

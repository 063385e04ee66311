#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/os/Date.h"

namespace cirrovault {

// The fields of a backup task that its record on the service's task list is built
// from. The task layer fills one from its task, hands it to CManageTaskList and reads
// serverPath back (a rename moves the task's server folder).
struct TaskListEntry {
    int32_t taskID = 0;
    uint64_t pcID = 0;
    std::string name;
    std::string description;
    std::string mPCName;
    int32_t taskType = 0;
    Date mBackupDate;
    std::string serverPath;
    std::vector<std::string> filterExt;
    std::vector<std::string> filtedPath;
    uint64_t uiMaxVersion = 10;
    Date mDating;
    Date mBeginDate;
    Date mEndDate;
    Date mResumeDate;
    uint64_t uiRemoteSize = 0;
    bool bResume = false;
    std::vector<std::string> localDirList;
    std::vector<std::string> deleteFileArray;
    std::vector<std::string> addFileArray;
    // One dictionary per source of a task moved from another computer: "PathID" (the
    // path) and "TypeID" (the folder flag as the task list gave it).
    std::vector<std::map<std::string, std::string>> sourceInfoArray;
    bool bMigrateTask = false;
    bool bOnlyMigrateTaskOrignalPath = false;

    // The task's history folder on the service, given whether the task is encrypted;
    // empty when it cannot be had. Unset: the task has no history folder to rename.
    std::function<std::string(bool bEncrypted)> getSvrHistoryFolder;
};

} // namespace cirrovault

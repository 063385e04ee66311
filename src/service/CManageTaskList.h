#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <variant>
#include <vector>

#include "service/TaskListEntry.h"

namespace cirrovault {

// One path entry of an add/edit request: a local path, or the dictionary ("PathID",
// "TypeID") of a source of a task moved from another computer.
using TaskListPathItem = std::variant<std::string, std::map<std::string, std::string>>;

// The client of the service's task list: builds the add/edit requests of a task (its
// header and its path entries, cut into batches), asks for the list of tasks or their
// names, deletes tasks and turns result codes into messages. One instance serves one
// exchange on one thread.
class CManageTaskList {
public:
    std::string strTaskNames;                // raw reply of the last getTaskNames
    std::string strDescr;                    // not filled here
    std::vector<std::string> taskNamesArray; // strTaskNames split at "|"
    int32_t nType = 0;                       // last exchange: 0 add/edit, 3 task names
    int32_t iResult = 0;                     // result of the last get exchange

    // Sends the task's record and its changed paths; answers the code of the last
    // request. A rename (an edit whose old name differs) also moves task.serverPath and
    // renames the task's folder and history subfolder on the service. fileAction is
    // not used.
    int32_t addOrEditBackupTask(TaskListEntry& task, const std::string& taskAction,
                                const std::string& fileAction, const std::string& oldTaskName,
                                const std::string& upgraded);
    // Sends the header strURL with the removed paths (action 0) and then the added
    // paths (action 1), as many requests as the batch size asks, and always a final
    // request with the remaining count. Answers the final request's code.
    int32_t addOrEditLocalPath(const std::vector<TaskListPathItem>& deleteFileArray,
                               const std::vector<TaskListPathItem>& editFileArray,
                               const std::string& strURL, const std::string& taskAction,
                               bool bMigrateTask);
    // strURL with one entry per path appended, indices from iCurrentLocalPathCount, or
    // from 0 when fileAction is "0". Sends nothing.
    std::string localFile(const std::vector<std::string>& fileArray, const std::string& fileAction,
                          const std::string& strURL, uint64_t iCurrentLocalPathCount);

    // The reply for one task (or all, with an empty name); empty when the call failed.
    std::string getBackupTasks(const std::string& taskName, const std::string& bGetLocalPath);
    int32_t getTaskNames(const std::string& flag);
    int32_t deleteTasks(const std::string& request);

    // taskListType: 0 add/edit, 1 get, 2 delete.
    std::string showManageTaskListResult(int32_t code, int32_t taskListType) const;

    // Sees each add/edit request text just before it is sent.
    void setRequestObserver(std::function<void(const std::string&)> observer);

private:
    int32_t send(const std::string& request);

    std::function<void(const std::string&)> requestObserver_;
};

} // namespace cirrovault

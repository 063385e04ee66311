#include <algorithm>

#include "engine/manager/CBackupManage.h"
#include "platform/os/Guarded.h"
#include "platform/os/SystemLog.h"

namespace cirrovault {

CBackupManage::TaskPtr CBackupManage::GetTaskByName(const std::string& name) {
    std::lock_guard lock(managerLock);
    for (const auto& task : taskList)
        if (task && task->name == name)
            return task;
    return nullptr;
}

bool CBackupManage::RemoveTaskFromTaskList(const TaskPtr& task) {
    if (!task) {
        SystemLog::write("Error:Task is nil when delete task");
        return false;
    }
    return RemoveTaskFromTaskListByName(task->name);
}

bool CBackupManage::RemoveTaskFromTaskListByName(const std::string& name) {
    if (name.empty())
        return false;
    std::lock_guard lock(managerLock);
    auto found = std::find_if(taskList.begin(), taskList.end(),
                              [&](const TaskPtr& task) { return task && task->name == name; });
    if (found == taskList.end())
        return false;
    taskList.erase(found);
    return true;
}

} // namespace cirrovault

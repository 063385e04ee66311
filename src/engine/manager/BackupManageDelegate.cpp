#include <exception>

#include "engine/manager/CBackupManage.h"
#include "platform/os/SystemLog.h"

namespace cirrovault {

std::optional<bool> CBackupManage::callHostDelegate(const TaskPtr& task, int32_t delegateType) {
    StowlineBackupManageDelegate* host = GetDelegate();
    if (!host)
        return std::nullopt;
    return host->StowlineBackupManageDelegateFun(this, task, delegateType);
}

bool CBackupManage::StowlineDelegateFun(const TaskPtr& task, StowlineDelegateType delegateType) {
    try {
        switch (delegateType) {
        case finishedTaskDelegate: {
            if (task && task->bHaveErr)
                AddErrTask(task);
            std::lock_guard lock(managerLock);
            SystemLog::write("Set working task nil");
            if (isWorkingTask(task))
                SetWorkingTask(nullptr);
            break;
        }
        case beginUploadTaskDelegate:
        case endUploadTaskDelegate:
            SystemLog::write("beginUploadTaskDelegate");
            if (callHostDelegate(task, delegateType) == false)
                SystemLog::write(
                    "Error: beginUploadTaskDelegate or endUploadTaskDelegate manage delegate.");
            break;
        case refreshProgressBarDelegate:
            if (callHostDelegate(task, delegateType) == false)
                SystemLog::write("Error: refreshProgressBarDelegate manage delegate.");
            break;
        case closeProgressBarViewDelegate:
            if (callHostDelegate(task, delegateType) == false)
                SystemLog::write("Error: closeProgressBarViewDelegate Delegate.");
            break;
        default: // the space check (3) and anything else need nothing here
            break;
        }
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupManage::StowlineDelegateFun()");
    }
    return true;
}

void CBackupManage::AddErrTask(const TaskPtr& task) {
    try {
        if (!task) {
            SystemLog::write("Error:CBackupManage:AddErrTask()");
            return;
        }
        std::lock_guard lock(managerLock);
        for (const auto& known : errTaskList) {
            if (known && known->name == task->name)
                return;
        }
        errTaskList.push_back(task);
    } catch (const std::exception&) {
        SystemLog::write("Error:CBackupManage:AddErrTask()");
    }
}

bool CBackupManage::isWorkingTask(const TaskPtr& task) {
    try {
        std::lock_guard lock(managerLock);
        if (!task)
            return true;
        if (!pWorkingTask)
            return false;
        return pWorkingTask->name == task->name;
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupManage::isWorkingTask()");
        return false;
    }
}

bool CBackupManage::SetWorkingTask(const TaskPtr& task) {
    std::lock_guard lock(managerLock);
    bool ended = pWorkingTask && !task;
    pWorkingTask = task;
    if (ended && schedulerHooks)
        schedulerHooks->runEnded();
    return true;
}

} // namespace cirrovault

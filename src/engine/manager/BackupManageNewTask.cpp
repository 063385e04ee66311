#include <algorithm>
#include <exception>
#include <unordered_set>

#include "engine/manager/CBackupManage.h"
#include "platform/framework/AccountBalance.h"
#include "platform/framework/LoadString.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/Clock.h"
#include "platform/os/Guarded.h"
#include "platform/os/SystemLog.h"
#include "service/CManageTaskList.h"
#include "support/GlobalFunction.h"

namespace cirrovault {

namespace {
constexpr int kMaxRandomNames = 1'000'000;
}

std::string CBackupManage::CreateRandomName() {
    return guarded("Error: CBackupManage::CreateRandomName()", std::string(), [&] {
        std::unordered_set<std::string> taken;
        {
            std::lock_guard lock(managerLock);
            for (const auto& task : taskList)
                if (task)
                    taken.insert(task->name);
        }
        const std::string format = LoadString::GetValueByKey("IDS_TASKNAMEFOR", "");
        for (int n = 0; n < kMaxRandomNames; ++n) {
            std::string candidate = LoadString::FormatText(format, n);
            if (!taken.contains(candidate))
                return candidate;
        }
        return std::string();
    });
}

bool CBackupManage::BeginNewTask() {
    return guarded("Error: CBackupManage::BeginNewTask()", false, [&] {
        if (pNewTask)
            return true;
        AccountBalance balance;
        int64_t code = TransferApiUtil::shareTransferApiUtil().GetAccountBalance(balance);
        if (code != ResultCode::Success) {
            GlobalFunction::MessageBox(TransferApiUtil::stringWithReturnCode(code), 0);
            return false;
        }
        auto task = std::make_shared<CBackupTask>();
        task->pcID = pcID;
        task->name = CreateRandomName();
        task->description = task->name;
        if (task->name.empty()) {
            SystemLog::write("Failed to create task name");
            // The task is dropped; a nameless task under creation would only confuse the
            // next BeginNewTask.
            return false;
        }
        pNewTask = std::move(task);
        return true;
    });
}

bool CBackupManage::EndNewTask() {
    return guarded("Error: CBackupManage::EndNewTask()", false, [&] {
        TaskPtr task = pNewTask;
        if (!task)
            return false;
        if (!task->StartScanFile()) {
            SystemLog::write("Error: scan file");
            return false;
        }
        if (task->scanFileArray.empty()) {
            SystemLog::write("Error: scan file array is empty");
            return false;
        }
        int64_t result = 0;
        if (!CBackupTask::CheckFreeSpaceFromServer(task->fileTotalSize, task.get(), &result)) {
            SystemLog::write("Error: check free space.");
            return false;
        }
        bool added = AddTask(task);
        if (added)
            pNewTask.reset();
        return added;
    });
}

void CBackupManage::CancelNewTask() {
    try {
        pNewTask.reset();
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupManage:CancelNewTask()");
        pNewTask = nullptr;
    }
}

bool CBackupManage::AddTask(const TaskPtr& task) {
    return guarded("Error: CBackupManage::AddTask()", false, [&] {
        if (!task)
            return false;
        try {
            std::lock_guard lock(managerLock);
            taskList.push_back(task);
        } catch (const std::exception&) {
            SystemLog::write("Error: add task list");
        }

        TaskPtr added = GetTaskByName(task->name);
        if (!added)
            added = task;
        CManageTaskList manageTaskList;
        TaskListEntry entry = added->toTaskListEntry();
        int32_t code = manageTaskList.addOrEditBackupTask(entry, "Add", "0", added->name, "1");
        if (code != ResultCode::Success) {
            GlobalFunction::MessageBox(manageTaskList.showManageTaskListResult(code, 0), 0);
            // The very object just appended leaves: a task of the same name that was
            // there before (the reason the service refused) stays.
            std::lock_guard lock(managerLock);
            auto it = std::find(taskList.rbegin(), taskList.rend(), task);
            if (it != taskList.rend())
                taskList.erase(std::next(it).base());
            return false;
        }

        std::lock_guard lock(managerLock);
        bool startNow = false;
        if ((task->taskType & CBackupTask::ScheduleKindMask) == CBackupTask::ScheduleNone) {
            const Date now = Clock::shared().now();
            startNow = task->mBeginDate <= now && now <= task->mEndDate;
        } else {
            startNow = nowDating(task);
        }
        if (!startNow)
            return true;

        waitingList.push_back(task);
        if (!isWorkingTask(task)) {
            task->setTaskState(CBackupTask::StateRunning);
            if (!pWorkingTask) {
                SetWorkingTask(task);
                // The running task leaves the list of tasks and stays in the waiting list.
                RemoveTaskFromTaskList(task);
                setWrokingFile(std::nullopt, std::nullopt);
                task->SetDelegate(this);
                task->StartBackup(true);
            }
        }
        return true;
    });
}

bool CBackupManage::SetTaskName(const std::string& name) {
    if (pNewTask)
        pNewTask->name = name;
    return true;
}

bool CBackupManage::SetTaskDescription(const std::string& description) {
    if (pNewTask)
        pNewTask->description = description;
    return true;
}

void CBackupManage::SetManagerDating(Date date) {
    guarded("Error: CBackupManage::SetManagerDating()", [&] {
        if (pNewTask)
            pNewTask->SetSchDating(date, true);
    });
}

void CBackupManage::SetBeginDate(Date date) {
    guarded("Error: CBackupManage::SetBeginDate()", [&] {
        if (pNewTask)
            pNewTask->SetBeginDate(date);
    });
}

void CBackupManage::SetEndDate(Date date) {
    if (pNewTask)
        pNewTask->mEndDate = date;
}

void CBackupManage::SetFilter(const std::vector<std::string>& filterExt) {
    guarded("Error: CBackupManage::SetFilter()", [&] {
        if (pNewTask)
            pNewTask->filterExt = filterExt;
    });
}

void CBackupManage::SetFilterPath(const std::vector<std::string>& filtedPath) {
    guarded("Error: CBackupManage::SetFilterPath()", [&] {
        if (pNewTask)
            pNewTask->filtedPath = filtedPath;
    });
}

// The number of versions a task keeps comes from the service's task list; this only
// tells whether a task is being created.
bool CBackupManage::SetMaxVersions(uint64_t /*maxVersions*/) {
    return IsCreateingTask();
}

void CBackupManage::setType(int32_t type) {
    if (pNewTask)
        pNewTask->taskType = type;
    else
        SystemLog::write("New task class is empty");
}

} // namespace cirrovault

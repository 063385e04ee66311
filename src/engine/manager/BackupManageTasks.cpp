#include <algorithm>
#include <exception>

#include "engine/manager/CBackupManage.h"
#include "platform/framework/Functions.h"
#include "platform/framework/OperationProgress.h"
#include "platform/framework/PathTreeController.h"
#include "platform/framework/ProgressModeHost.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/Clock.h"
#include "platform/os/Guarded.h"
#include "platform/os/SystemLog.h"
#include "service/CManageTaskList.h"
#include "support/CFileInfo.h"
#include "support/GlobalFunction.h"

namespace cirrovault {

namespace {

// The deletion worker's own thread object, so that its body can name it to the
// progress window.
thread_local Thread* currentDeletionThread = nullptr;

// A worker that knows its own thread object while it runs.
std::shared_ptr<Thread> makeDeletionThread(std::function<void()> body) {
    auto self = std::make_shared<Thread*>(nullptr);
    auto worker = std::make_shared<Thread>([self, body = std::move(body)] {
        currentDeletionThread = *self; // written before start
        body();
        currentDeletionThread = nullptr;
    });
    *self = worker.get();
    return worker;
}

// Runs the worker under the shared progress window, or, with none installed, on its
// own thread without a window. Returns when the worker has ended either way, so that
// what it decided (cancel, removal) is settled before the caller reads it.
void runUnderProgressWindow(const std::shared_ptr<Thread>& worker) {
    if (std::shared_ptr<ProgressModeHost> host = ProgressModeHost::shared())
        host->EnterProgressMode(worker.get());
    worker->start(); // does nothing when the window started it
    worker->join();
}

// DeletePaths sees a cancel through this mark; a request already under way is
// aborted by the window's Cancel through CurlHandleController.
bool cancelAsked(const std::shared_ptr<ProgressModeHost>& host, Thread* thread) {
    return host && thread && host->IsCancelProgressModel(thread);
}

} // namespace

CBackupManage::TaskPtr CBackupManage::GetTaskByName(const std::string& name) {
    std::lock_guard lock(managerLock);
    for (const auto& task : taskList)
        if (task && task->name == name)
            return task;
    return nullptr;
}

int32_t CBackupManage::editBackupTask(const TaskPtr& task, const std::string& oldTaskName) {
    return guarded("Error: CBackupManage::editBackupTask()",
                   static_cast<int32_t>(ResultCode::Failure), [&]() -> int32_t {
        if (!task)
            return static_cast<int32_t>(ResultCode::Failure);
        CManageTaskList manageTaskList;
        TaskListEntry entry = task->toTaskListEntry();
        // A rename moves the task's server folder and its history folder along with the
        // record (CManageTaskList does both). The task follows its folder once the
        // service has taken the new record.
        int32_t code = manageTaskList.addOrEditBackupTask(entry, "Edit", "", oldTaskName, "1");
        if (code != ResultCode::Success) {
            GlobalFunction::MessageBox(manageTaskList.showManageTaskListResult(code, 0), 0);
        } else {
            task->serverPath = entry.serverPath;
            task->localDirList.assign(task->backupFileArray.begin(), task->backupFileArray.end());
        }
        task->addFileArray.clear();
        task->deleteFileArray.clear();
        task->backupFileArray.clear();
        task->scanFileArray.clear();
        return code;
    });
}

bool CBackupManage::UpdateTask(const TaskPtr& task, const TaskPtr& /*pNewTask*/) {
    return guarded("Error: CBackupManage::UpdateTask()", true, [&] {
        if (!task)
            return true;
        std::lock_guard lock(managerLock);
        for (const auto& known : taskList) {
            if (known && known->taskID == task->taskID) {
                task->taskID = known->taskID;
                break;
            }
        }
        return true;
    });
}

bool CBackupManage::BatchDeleteTask(const std::string& name, bool bCheck) {
    return guarded("Error: CBackupManage::BatchDeleteTask()", false, [&] {
        TaskPtr task = GetTaskByName(name);
        if (!task)
            return true;
        task->bDeleteServerFile = bCheck;
        task->bDeleting = true; // the scheduler never finds it due from now on
        runUnderProgressWindow(makeDeletionThread([this, task] { BatchDeleteTaskProc(task); }));
        if (callHostDelegate(nullptr, deleteTaskDelegate) == true)
            SystemLog::write("Successful manage delete task Delegate.");
        return !bCancelDeleteTask;
    });
}

void CBackupManage::BatchDeleteTaskProc(const TaskPtr& task) {
    Thread* self = currentDeletionThread;
    std::shared_ptr<ProgressModeHost> host = ProgressModeHost::shared();
    try {
        bCancelDeleteTask = false;
        if (task) {
            auto& service = TransferApiUtil::shareTransferApiUtil();
            PathTreeController& tree = TransferApiUtil::sharePathTreeController();
            std::vector<std::string> paths;
            PathInfo info;
            if (!task->serverPath.empty() && tree.FindPath(task->serverPath, info, false))
                paths.push_back(task->serverPath);
            std::string history =
                task->getSvrHistoryFolder(Functions::IsEncryptPath(task->serverPath));
            std::string taskHistory = CFileInfo::serverPathAppend(history, task->name);
            if (!taskHistory.empty() && tree.FindPath(taskHistory, info, false))
                paths.push_back(taskHistory);

            int64_t code = ResultCode::Success;
            if (!paths.empty() && task->bDeleteServerFile) {
                OperationProgress progress;
                progress.setCancelled(cancelAsked(host, self));
                code = service.DeletePaths(paths, &progress, false);
            }
            if (cancelAsked(host, self))
                bCancelDeleteTask = true;

            if (paths.empty() || !task->bDeleteServerFile || code == ResultCode::Success) {
                if (!task->bDeleteServerFile) {
                    // The data stays on the service under a name no task uses.
                    std::string newName =
                        GlobalFunction::getPCName() + "." +
                        Functions::stringTransFromedDate(Clock::shared().now(),
                                                         "yyyy-MM-dd HH-mm-ss") +
                        "." + task->name;
                    for (const auto& path : paths)
                        service.EditFolder(path, newName, "", "");
                }
                CManageTaskList manageTaskList;
                if (manageTaskList.deleteTasks(task->name) == ResultCode::Success)
                    RemoveTaskFromTaskList(task);
            }
        }
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupManage::BatchDeleteTaskProc()");
    }
    try {
        if (host && self)
            host->LeaveProgressModel(self);
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupManage::BatchDeleteTaskProc()");
    }
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

bool CBackupManage::DeleteFileVersions(const std::vector<std::string>& paths,
                                       const std::string& taskName) {
    return guarded("Error: CBackupManage::DeleteFileVersions()", false, [&] {
        // An unknown task has nothing to delete; the host is answered as for any other.
        TaskPtr task = GetTaskByName(taskName);
        if (!task)
            return true;
        task->deleteFileArray = paths;
        runUnderProgressWindow(makeDeletionThread([this, task] { DeleteFileVersionProc(task); }));
        return true;
    });
}

void CBackupManage::DeleteFileVersionProc(const TaskPtr& task) {
    Thread* self = currentDeletionThread;
    std::shared_ptr<ProgressModeHost> host = ProgressModeHost::shared();
    try {
        bCancelDeleteTask = false;
        if (task && !task->deleteFileArray.empty()) {
            OperationProgress progress;
            progress.setCancelled(cancelAsked(host, self));
            TransferApiUtil::shareTransferApiUtil().DeletePaths(task->deleteFileArray, &progress,
                                                                false);
            // These are server paths: they must not reach the next task-list edit, which
            // reads the same array as the sources removed by the user.
            task->deleteFileArray.clear();
        }
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupManage::DeleteFileVersionProc()");
    }
    try {
        if (host && self)
            host->LeaveProgressModel(self);
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupManage::DeleteFileVersionProc()");
    }
}

} // namespace cirrovault

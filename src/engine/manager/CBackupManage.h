#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "engine/manager/StowlineBackupManageDelegate.h"
#include "engine/task/CBackupTask.h"
#include "engine/task/StowlineDelegate.h"
#include "platform/framework/CLoopItem.h"
#include "platform/os/Semaphore.h"
#include "platform/os/Thread.h"

namespace cirrovault {

class PasswordMan;

// What a host that shares the account with other processes (the daemon) is asked by the
// scheduler, so that it holds the account only while a task runs and sees what others
// changed in between.
class SchedulerHooks {
public:
    virtual ~SchedulerHooks() = default;
    // Before a task starts, under managerLock; false leaves it waiting for a later pass.
    virtual bool mayStartRun(const std::string& taskName) = 0;
    // The running task is gone (ended, stopped or dropped); under managerLock.
    virtual void runEnded() = 0;
    // Between passes on the scheduler thread, no lock held.
    virtual void betweenPasses() = 0;
};

// The one object through which the host drives the backup engine: the user's tasks, the
// waiting list, the tasks that ended in error, the task being created and the task now
// running; this computer's identity; and the delegate of every task, which keeps its
// own state up to date and passes on what the host must show.
//
// Tasks are identified by name everywhere here, never by object identity.
class CBackupManage final : public StowlineDelegate {
public:
    using TaskPtr = std::shared_ptr<CBackupTask>;

    CBackupManage();
    ~CBackupManage() override;
    CBackupManage(const CBackupManage&) = delete;
    CBackupManage& operator=(const CBackupManage&) = delete;

    // The manager's lock. Task events, the scheduler and the host meet on it; it is
    // recursive because guarded operations call each other.
    mutable std::recursive_mutex managerLock;

    std::string strWorkingFile;         // local file a restore view works on
    std::string strServerWorkingFile;   // its server path
    std::string pcName;                 // this computer's name, from the identity file
    std::string strName;                // the logged-on user
    std::string strPassword;            // in memory only; never logged
    std::string taskServerPath;         // server folder of the task list (set by the host)
    std::string taskHistoryPath;        // server folder of task history (set by the host)
    std::string taskBackupLogLocalPath; // local folder of result logs (set by the host)
    std::vector<TaskPtr> waitingList;   // guarded by managerLock; first in, first out
    std::vector<TaskPtr> errTaskList;   // guarded by managerLock
    std::vector<TaskPtr> taskList;      // changed and walked under managerLock; owns the tasks
    uint64_t pcID = 0;                  // this computer's identity number
    std::string identityProblem;        // what went wrong reading the identity; "" when nothing
    std::atomic<bool> bCancelLogon{false};
    // Set by a host whose dialogs nobody answers (scripts, the daemon): a logon that
    // cannot reach the service ends after its attempts instead of counting down.
    std::atomic<bool> bUnattended{false};
    std::atomic<bool> bLogOff{false}; // a log-off is under way or done; stops the scheduler
    std::atomic<bool> bExit{false};   // the application is quitting; stops the scheduler
    std::atomic<bool> bFinshedBackupTask{true};
    bool bFirstLogOn = false;
    std::atomic<bool> bCancelDeleteTask{false};
    // A task-list reload is under way: the scheduler neither queues nor starts.
    std::atomic<bool> bRefreshTaskListFlag{false};
    std::atomic<int64_t> iRet{0}; // result of the last logon attempt
    std::shared_ptr<Thread> pLogonThread;
    StowlineBackupManageDelegate* delegate = nullptr; // the host's; not owned
    SchedulerHooks* schedulerHooks = nullptr;         // the host's; not owned; set before the scheduler
    CLoopItem* loopItem = nullptr; // the logon/log-off dialog as its worker sees it; not owned
    std::shared_ptr<CLoopItem> pLoopDlg;       // that dialog, held by the operation showing it
    std::unique_ptr<PasswordMan> pPasswordMan; // keeps task encryption pass phrases
    // Made anew by the scheduler; replaced and read under managerLock.
    std::shared_ptr<Semaphore> exitDoscheduleSemaphoreID;     // the scheduler has ended
    std::shared_ptr<Semaphore> fineshedDoscheduleSemaphoreID; // a scheduler pass has ended
    TaskPtr pNewTask;              // the task under creation in the wizard
    TaskPtr pSaveTask;             // a task kept aside during a task-list reload
    TaskPtr pWorkingTask;          // guarded by managerLock; the one running task
    int32_t nOSBackupDataType = 3; // kind of source paths of tasks being migrated

    // ---- Small operations ----
    std::vector<TaskPtr> getTasksList();
    bool SetWorkingTask(const TaskPtr& task); // always true
    StowlineBackupManageDelegate* GetDelegate() const { return delegate; }
    void SetDelegate(StowlineBackupManageDelegate* receiver) { delegate = receiver; }
    bool IsCreateingTask() const { return pNewTask != nullptr; }
    TaskPtr GetNewTask() const { return pNewTask; }
    std::string getCreateNewTaskName() const;
    int32_t GetType() const; // schedule type of the task under creation
    bool ISFirtLogOn();      // nobody has logged on from this computer yet
    bool JustLogon(bool flag);

    // ---- The task under creation ----
    bool InitLocalFolderlist(const std::vector<std::string>& paths); // always true
    bool hasLocalFolderSel() const;
    bool SetServerFolder(const std::string& path); // always true
    void setTaskSvrDataFodler(const std::string& folder);
    void SetEncryMode(bool bEncryMode);
    // Kept for the host; the result report is sent by the task itself.
    void SendLogByEmail(const std::string& strLog, const std::string& errStr, int64_t iErr);
    void MySignup(const std::string& userName, const std::string& userPassword,
                  const std::string& emailAddress);

    // ---- Identity, data folders, encryption ----
    // Reads PCInfo.dat, or makes it once with a new identity; sets pcName and pcID.
    void initMyID();
    std::string GetSvrDataFolder();
    bool IsServiceMainDataFilePathExisting();
    void CreateEncryDataFodler();
    void SaveEncryKey(const std::string& passPhrase, const std::string& encryPath);

    // ---- Delegate ----
    // Every task run by the manager reports here. Always answers true.
    bool StowlineDelegateFun(const TaskPtr& task, StowlineDelegateType delegateType) override;
    void AddErrTask(const TaskPtr& task);
    // True for null (no task is ever queued or started for it), else whether the working
    // task has the same name.
    bool isWorkingTask(const TaskPtr& task);

    // ---- Scheduler and waiting list (BackupManageSchedule.cpp) ----
    // Starts the scheduler on its own thread and returns at once; the host calls it after
    // each logon. The thread ends when bExit or bLogOff is seen.
    void doScheduleTaskThreadMethod();
    void doScheduleTaskProc(); // body of the scheduler thread
    // Whether the task is due now. Called with managerLock held.
    bool nowDating(const TaskPtr& task);
    bool AddTaskToWaitList(const TaskPtr& task, bool bWaiting);
    bool RemoveTaskFromWaitlist(const TaskPtr& task); // always true; the task's state becomes 0
    bool findTaskFromWaitingList(const TaskPtr& task);
    TaskPtr getTopTaskFromWaitingList();
    // Runs the task now when nothing runs; otherwise queues it (bByChangeEvent false).
    bool StartBackupByUser(const std::string& taskName, bool bByChangeEvent);
    bool stopBackupTask(const std::string& taskName); // always true; waits for the run's end
    bool StopWaitingTask(const std::string& taskName); // always false
    bool endBackpTask();                               // always true
    void pauseUpload(const std::string& taskName, bool bPause);

    // ---- Logon, log-off and task-list loading (BackupManageLogon.cpp) ----
    // Host main thread: logs on under the wait dialog and loads the task list. Returns the
    // logon result (0 logged on), 6 when the user cancelled, 2 on an exception.
    int64_t Mylogon(const std::string& userName, const std::string& userPassword);
    void LogonProc();  // body of the logon thread
    void ReLogon();    // retry policy for result 3
    // Host main thread: stops the scheduler and the running task, then ends the session.
    void logOff(bool flag);
    void logOffProc(); // body of the log-off thread
    bool LoadTaskList(const std::string& response);
    bool refreshTaskList(); // true when the list changed; leaves bRefreshTaskListFlag set
    bool refreshTaskListForRemoteDeleteTask();
    // Reads the whole task list again while no task runs (the scheduler's own thread may
    // call it). A task keeps its place in the waiting list and its run state. False when
    // the list could not be read or a task runs; the old list then stays.
    bool reloadTaskList();
    void setBRefreshTaskListFlag(bool flag) { bRefreshTaskListFlag = flag; }

    // ---- New task (BackupManageNewTask.cpp) ----
    bool BeginNewTask();
    bool EndNewTask();
    void CancelNewTask();
    bool AddTask(const TaskPtr& task);
    std::string CreateRandomName(); // "" when a million names are taken
    bool SetTaskName(const std::string& name);
    bool SetTaskDescription(const std::string& description);
    void SetManagerDating(Date date);
    void SetBeginDate(Date date);
    void SetEndDate(Date date);
    void SetFilter(const std::vector<std::string>& filterExt);
    void SetFilterPath(const std::vector<std::string>& filtedPath);
    bool SetMaxVersions(uint64_t maxVersions); // answers IsCreateingTask; changes nothing
    void setType(int32_t type);

    // ---- Existing tasks: edit, delete, versions (BackupManageTasks.cpp) ----
    TaskPtr GetTaskByName(const std::string& name);
    int32_t editBackupTask(const TaskPtr& task, const std::string& oldTaskName);
    bool UpdateTask(const TaskPtr& task, const TaskPtr& pNewTask); // always true
    // Deletes on its own thread under the shared progress window. False when cancelled.
    bool BatchDeleteTask(const std::string& name, bool bCheck);
    void BatchDeleteTaskProc(const TaskPtr& task);
    bool RemoveTaskFromTaskList(const TaskPtr& task);
    bool RemoveTaskFromTaskListByName(const std::string& name);
    bool DeleteFileVersions(const std::vector<std::string>& paths, const std::string& taskName);
    void DeleteFileVersionProc(const TaskPtr& task);

    // ---- Migration and the restore view (BackupManageMigrate.cpp) ----
    bool MigrateTaskToCurrentPC(const std::string& newRoot, const TaskPtr& pTask,
                                int32_t nMigrateOSBackupType);
    void GetTaskInformationForRestoreView(const std::string& name);
    bool IsWorkingTaskForRestore(const std::string& name);
    void SetRestoreWorkingFile(const std::optional<std::string>& localPath,
                               const std::optional<std::string>& svrPath);
    void setWrokingFile(const std::optional<std::string>& localPath,
                        const std::optional<std::string>& svrPath);

    // The scheduler thread; set only by the host's thread in doScheduleTaskThreadMethod.
    std::shared_ptr<Thread> pScheduleThread;

private:
    void queueDueTasks();     // the queueing pass; managerLock held
    void startWaitingTask();  // the starting pass; managerLock held
    // Declared last so it goes first: a manager destroyed while its scheduler still runs
    // stops that thread and waits for it before any field it uses is gone.
    struct ScheduleThreadStopper {
        CBackupManage* owner;
        ~ScheduleThreadStopper();
    };
    ScheduleThreadStopper scheduleThreadStopper{this};

private:
    // Passes an event to the host: its answer, or nothing when no host listens.
    std::optional<bool> callHostDelegate(const TaskPtr& task, int32_t delegateType);
};

} // namespace cirrovault

#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "engine/task/SourceInfo.h"
#include "engine/task/StowlineDelegate.h"
#include "platform/framework/CLoopItem.h"
#include "platform/framework/TrueProgressCallback.h"
#include "platform/os/Date.h"
#include "platform/os/Semaphore.h"
#include "platform/os/Thread.h"
#include "service/TaskListEntry.h"

namespace cirrovault {

class TransferInfo;
class UploadPool;
struct UploadFileInfo;

// One backup task: identity and settings, its sources, its schedule dates, its run state
// and the working collections of one run. The run itself is carried out by further
// operations of this class on the task's own worker thread.
//
// The record has no lock. Fields that another thread reads while the run writes them
// (the state, the stop and cancel flags) are atomic; everything else belongs to whoever
// holds the task at the time (the manager under its lock, or the run).
//
// Tasks live in std::shared_ptr (the manager's lists share them); the task hands itself
// to its delegate through shared_from_this().
class CBackupTask : public std::enable_shared_from_this<CBackupTask> {
public:
    // States of mTaskState.
    static constexpr int32_t StateIdle = 0;
    static constexpr int32_t StateRunning = 1;   // running or about to run
    static constexpr int32_t StateWaiting = 2;   // in the manager's waiting list
    static constexpr int32_t StateCancelled = 3; // last run cancelled
    static constexpr int32_t StateSucceeded = 4; // last run succeeded
    static constexpr int32_t StateFailed = 5;    // last run failed; retry due at mResumeDate

    // Schedule kinds: taskType & ScheduleKindMask. The upper bits carry other flags.
    static constexpr int32_t ScheduleKindMask = 15;
    static constexpr int32_t ScheduleNone = 0;
    static constexpr int32_t ScheduleDaily = 1;
    static constexpr int32_t ScheduleWeekly = 2;
    static constexpr int32_t ScheduleBetweenDates = 3;
    // Flag of taskType: the scan leaves out every dot-name, as it once did.
    static constexpr int32_t SkipHiddenFlag = 0x100;

    // A new task with the defaults: this computer's name, a random task ID, state 0,
    // ten versions kept, a schedule window from 30 days ago to 2099.
    CBackupTask();
    CBackupTask(const CBackupTask&) = delete;
    CBackupTask& operator=(const CBackupTask&) = delete;

    // ---- Identity and settings ----
    std::string name;           // unique among the user's tasks; key of its log entries
    std::string description;    // given with the name when the server folder is made
    std::string serverPath;     // the task's server folder; empty makes a run fail at once
    std::string mPCName;        // the computer that owns the task
    int32_t taskID = 0;         // also the key of event-log records
    uint64_t pcID = 0;          // identity of the owning computer
    int32_t taskType = 0;       // schedule kind in the low four bits
    uint64_t uiMaxVersion = 10; // old versions of a file kept on the server
    uint64_t uiTaskListVersion = 0;
    bool bEncryMode = false; // files are stored encrypted
    bool bFolder = false;
    std::string oldName; // previous name while a rename is pending
    std::optional<std::string> strTempFolder;
    std::optional<std::string> strErrLog; // error text of the last run
    std::optional<std::string> strLimitLocalPath;
    std::string strWorkingFile;       // the file being worked on
    std::string scanFilterSystemPath; // last system item the scan left out
    std::string scanFilterUserPath;   // last folder the scan's filters left out

    // ---- Schedule dates ----
    Date mBeginDate;   // first date of the schedule
    Date mEndDate;     // last date of the schedule
    Date mDating;      // next scheduled run
    Date mBackupDate;  // last successful run
    Date mLastDating;  // previous scheduled run
    Date mResumeDate;  // when a failed run is retried
    Date mLastRunDate; // start of the last run, on the whole minute
    Date runStartDate; // start of the current or last run, as it was (the report's duration)

    // ---- Run state and results ----
    // The scheduler and the host read the state while the run changes it.
    std::atomic<int32_t> mTaskState{StateIdle};
    int32_t mRestoreTaskState = 0;
    uint64_t iBackupRet = 0; // result code of the current or last run
    uint64_t uiRetValue = 0;
    uint64_t uiErrorBackupCount = 0;
    int32_t iErrorTimes = 0; // consecutive failed runs; drives the retry delay
    int32_t iCurrentVersionCount = 0;
    uint64_t uiRemoteSize = 0;
    uint64_t uiNeedSpace = 0;
    uint64_t uiTaskCurrentUploadSize = 0;
    uint64_t fileTotalSize = 0;
    int32_t nScanTotalFiles = 0;
    bool bResume = false;               // the next run retries a failed one
    bool blogModify = false;            // the record changed and must go to the server task list
    std::atomic<bool> bHaveErr{false};  // read by the manager when the run ends
    bool bNeedRestart = false;          // kept for the host; the run never reads it
    std::atomic<bool> bDeleting{false}; // refuses runs and renames
    bool mbAllowUpload = false;         // kept for the host; the run never reads it
    bool bReCheckSize = false;          // kept for the host; the run never reads it
    bool isHookStopping = false;        // kept for the host; the run never reads it
    std::atomic<bool> bLogOff{false};   // ends the run without the end-of-run events
    std::atomic<bool> bExit{false};     // set with bLogOff by the manager; not read by the run
    std::atomic<bool> bCancleScanFile{false};
    bool bInitUIPrgBar = false;
    bool bCreateBackupFolder = false;
    bool bRescanForPrgBar = false;
    bool bFinishScanForPrgBar = false;
    std::optional<std::string> strRescanInfoForPrgbar;
    std::optional<std::string> strCurrentXMLParentPath;
    std::optional<std::string> strCurrentUploadFilePath;
    bool bMigrateTask = false; // being moved to this computer
    bool bOnlyMigrateTaskOrignalPath = false;
    std::atomic<bool> bRefresh{false}; // run ended by a task-list reload: no close events
    bool bDeleteServerFile = false;

    // ---- Collections ----
    std::vector<SourceEntry> localDirList; // the sources, in order
    // For a task moved from another computer: {"PathID": path, "TypeID": folder flag}
    // per source, in the order of localDirList.
    std::vector<std::map<std::string, std::string>> sourceInfoArray;
    std::vector<std::string> filterExt;     // file-name patterns the scan leaves out
    std::vector<std::string> filtedPath;    // folder patterns the scan leaves out
    std::vector<std::string> scanFileArray; // what the scan chose; emptied after each run
    std::vector<std::string> leftOutPaths;  // what the scan could not take, for the summary
    std::vector<std::string> mSmallCacheFileList;
    std::vector<std::string> mGetScanFilePath;
    std::vector<std::string> addFileArray;
    std::vector<std::string> deleteFileArray;
    std::vector<std::string> backupFileArray;
    std::vector<std::string> deleteFileVersionArray;
    std::vector<std::string> localLogPathArray;

    // ---- Run objects ----
    std::shared_ptr<Thread> pBackupTaskThread;     // worker of the current run
    std::shared_ptr<TrueProgressCallback> pPrgBar; // progress and cancel marks of the run
    // The wait dialog of an interactive scan, and the same dialog seen as a loop item.
    std::shared_ptr<CLoopItem> pLoopDlgController;
    StowlineDelegate* delegate = nullptr;         // not owned
    std::shared_ptr<Semaphore> backupSemaphoreID; // signalled when a run has finished
    std::shared_ptr<Thread> pThread;              // the interactive scan thread
    CLoopItem* loopItem = nullptr;                // not owned

    // ---- Source list ----
    // Adds a SourceInfo record (log serial 1, folder flag as found now). Duplicates and
    // paths that do not exist are added too.
    void AddSrcPath(const std::string& path);
    void AddSrcPathList(const std::vector<std::string>& paths);
    void ClearSrcList();
    void ReplaceLocalList(const std::vector<std::string>& paths);
    // These read entries as records: a plain-path entry ends the walk with false/none.
    bool IsInSourceList(const std::string& path);
    bool IsInBackupList(const std::string& path);
    std::optional<SourceInfo> GetSrcItem(const std::string& path);
    // Always false: callers treat every pair of lists as different.
    bool IsSameSrcList(const std::vector<SourceInfo>& srcList);
    // Reads the first entry as a plain path; "" when empty or when it is a record.
    std::string GetFirstSrcPath();

    // ---- Small operations ----
    // Renames go through the manager and the server task list; these only answer.
    bool RenameTask(const std::string& newName); // true; the name is left as it is
    bool RenamePath(const std::string& oldPath, const std::string& newPath); // !bDeleting
    int32_t GetType() const { return taskType; } // all bits, flags included
    void setTaskState(int32_t state) { mTaskState = state; }
    void SetDelegate(StowlineDelegate* receiver) { delegate = receiver; }
    StowlineDelegate* GetDelegate() const { return delegate; }

    // ---- Schedule (BackupTaskSchedule.cpp) ----
    // Dates are local calendar dates; "now" comes from Clock::shared().
    void SetSchDating(Date date, bool bAdjustTime); // the user's time (and weekday)
    void SetBeginDate(Date date);                   // re-adjusts scheduled kinds only
    // Moves mDating to the first run at or after the later of now and mBeginDate.
    void AdjuestDating(bool fromBeginDate);
    // Steps mDating on after a run; after a long pause, to the next slot from today.
    void SetNextDating();

    // ---- Scan (BackupTaskScan.cpp) ----
    // The run's walk, on the worker thread: false when cancelled.
    bool CalculateBackupSize();
    // The interactive walk under the wait dialog: false when cancelled (list emptied).
    bool StartScanFile();
    void scanFileProc(); // body of the interactive scan thread

    // ---- Exclusion filters (BackupTaskFilters.cpp) ----
    // Whether any entry of filterArray excludes path ('*' and '?' wildcards, case
    // ignored). A folder entry excludes the folder at any depth and all below it.
    static bool RegexFun(const std::string& path, const std::vector<std::string>& filterArray,
                         bool bFilterFolder);
    static std::string RegexCombiningStrings(const std::string& entry, bool bFilterFolder);
    static bool RegexFindLeftCharacterFromStr(const std::string& text,
                                              const std::string& findCharacter);
    static bool RegexFindRightCharacterFromStr(const std::string& text,
                                               const std::string& findCharacter);
    // Whether a component below the root cannot be stored even encoded (too long).
    static bool RegexBackupPathForServer(const std::string& path);
    // RegexBackupPathForServer, and a path it leaves out is named once in the event log
    // and in leftOutPaths.
    bool leftOutByName(const std::string& path);
    // Whether the disk holding path is larger than iCompareSize; asks the user otherwise.
    static bool CheckLocalPathSize(const std::string& path, uint64_t iCompareSize);

    // ---- Space check (BackupTaskSpace.cpp) ----
    // Whether the file must be uploaded; if so it is listed and the counters raised.
    bool CalculateBackupFileSize(const std::string& localFile);
    // Lowers uiRemoteSize by the size of the file's interrupted upload on the service.
    void getPartSizeFromSever(const std::string& localFile);
    // Inside a run: true to go on; sets iBackupRet (10 when the user declines).
    bool CheckAccountSpace(uint64_t needed);
    // Before a run (the manager). task must not be null. The service code goes to
    // *result; true to go on.
    static bool CheckFreeSpaceFromServer(uint64_t needed, CBackupTask* task, int64_t* result);
    // The per-file decision with the status a walk has already read, so that a walk
    // makes one metadata call per item.
    bool CalculateBackupFileSize(const std::string& localFile, uint64_t size, Date modifyDate);
    // The one change test of the scan and the upload: whether the stored copy (its
    // size and kept time) still stands for the local file. timePrecision is the
    // store's (StoreCapabilities); window is the seconds forgiven for equal sizes on a
    // store that keeps whole seconds or coarser.
    static bool storedCopyIsCurrent(uint64_t localSize, Date localTime, uint64_t storedSize,
                                    Date storedTime, bool encrypted, double timePrecision,
                                    int64_t window);
    // The modification-time precision of the store the session works with, in seconds.
    static double storeTimePrecision();
    // What an upload walk looks up once and then reuses for every file: the
    // "IgnoreTimeSpan" setting and the history folder (plain, encrypted). Emptied when
    // the walk starts.
    struct UploadWalkCache {
        std::optional<int64_t> ignoreTimeSpan;
        std::string historyFolder[2];
    } uploadWalkCache;

    // ---- Server folders and versions (BackupTaskVersions.cpp) ----
    // The info folder of the account's application tree; "" when it cannot be made.
    std::string getSvrInfoFolder();
    // The history folder (plain or encrypted tree), made if missing; "" on failure.
    std::string getSvrHistoryFolder(bool bEncrypted);
    // Local parent folder of the first source path.
    std::string GetTopFolder();
    // The server folder for a local path below the first source: the folder itself
    // (a folder, bNoFolderSwitch false) or the folder that will hold the file.
    std::string getTargetSvrFolder(const std::string& localPath, bool bNoFolderSwitch);
    // Moves the current server copy into the version folder before it is overwritten,
    // first dropping the oldest of that file's own versions beyond max − 2. Versions
    // are named after the stored name (VersionNames); the local name is not used.
    // True when it was moved or nothing had to be kept.
    bool recordCurrent(const std::string& serverFile, uint64_t iMaxVersion,
                       const std::string& fileName);
    // Name of the entry of serverFolder with the earliest modification time; "" if none.
    std::string getOldTimeHistoryFile(const std::string& serverFolder);
    // Copies the source file into strDesFile's folder under its own name.
    bool copyBackupFile(const std::string& strSrcFile, const std::string& strDesFile,
                        int64_t* iRetCopy);
    // Fills the source list from the server task list; answers its result code.
    int64_t loadFilePathListFromDB();
    // uiRemoteSize = what the task's folder and its history subfolder hold on the service.
    void getTaskSizeFromServer();

    // ---- Result log and report (BackupTaskReport.cpp) ----
    // Turns a run's or a step's result code into strErrLog and event-log entries.
    void getBackupTaskResult(uint64_t code, const std::string& logServerPath,
                             const std::string& logUploadPath);
    // Mails the end-of-run report as the account options ask.
    void sendLogByEmail(int code);
    // Sends this task to the server task list; true on success.
    bool uploadTaskList(const std::string& action, const std::string& taskName);
    // The fields the server task list is built from.
    TaskListEntry toTaskListEntry();

    // ---- Run driver (BackupTaskRun.cpp) ----
    // Starts a run on the task's own worker thread; always answers false (the outcome
    // arrives through the delegate and the task's state). The flag is not used.
    bool StartBackup(bool flag);
    // Body of the worker thread: scan, space check, server folder, upload, close.
    void BackupThreadProc();
    // Closes the run: final state, next dates, report, semaphore and closing notices.
    void FinishBackup();
    void makeStoredDurable();
    // Waits for the end of a run that got past its start, then drops the worker.
    bool checkFinshedBackup();
    // True when no worker is running or about to run for this task (never started, or
    // its thread has ended). A run that ends without its closing notices is seen so.
    bool hasRunEnded() const;
    // Waits until the worker thread itself has ended. Only for callers that have made
    // the run skip its closing notices (bLogOff), which may need the caller's locks.
    void waitForRunThread();
    bool CheckNetwork() { return true; } // no test of its own: the service answers
    // Replaces the run's progress object and tells the delegate (notice 4).
    bool RefreshProgressInfo(std::shared_ptr<TrueProgressCallback> progress);
    void runDelegateFun(StowlineDelegateType nType);
    // The run's progress object as it is now, safe from any thread; null between runs.
    std::shared_ptr<TrueProgressCallback> GetProgress() const;
    // From another thread: marks the run cancelled and aborts the transfer under way.
    void CancelBackup();
    // Only the worker (and StartBackup, before the worker exists) assigns pPrgBar, and
    // always under this lock; other threads copy it under the lock (GetProgress), so the
    // worker may read its own pointer without it and a canceller never sees it freed.
    mutable std::mutex prgBarMutex;

    // ---- Upload (BackupTaskUpload.cpp) ----
    // Walks scanFileArray in passes; always true, the outcome is left in iBackupRet.
    bool BeginUploadingData();
    // One entry of the walk: a folder, a file, or a path that has gone (0).
    int64_t BackupPath(const std::string& localPath, const std::string& serverPath,
                       bool bRecursive);
    // Makes sure the local folder exists on the server below serverPath.
    int64_t backupDir(const std::string& localPath, const std::string& serverPath,
                      bool bRecursive);
    // Uploads the file into serverPath when it changed, keeping the old copy as a
    // version; iTryTime counts the attempts already made in this pass.
    int64_t backupFile(const std::string& localPath, const std::string& serverPath,
                       int32_t iTryTime);
    // Codes that end the upload walk at once.
    static bool isFatalUploadCode(int64_t code);
    // One file's transfer, decided on by the walk: sent there or on a thread of the
    // walk's pool, and then taken back by the walk, which records what came of it.
    struct FileUpload;
    // One attempt at sending the file. Safe on a pool thread: it touches nothing of the
    // task but the job and the progress object.
    void sendFile(FileUpload& job);
    // On the walk: further attempts within the retry bounds (and after the space-limit
    // question), then the file's figures and event-log entries.
    int64_t settleFile(FileUpload& job);
    // Sends the file until a send finds it unchanged from before to after reading
    // (bounded); a file still changing is stored with a time that makes the next run
    // send it again, and the job says so for the event log.
    int64_t uploadSettled(FileUpload& job, TransferInfo& transfer, UploadFileInfo& information);
    // The pool of the present walk when files are sent several at once (the "Transfers"
    // option, on a store that gains from it); null otherwise. The walk's entry being
    // worked on, for the jobs it hands to the pool.
    UploadPool* uploadPool = nullptr;
    size_t walkEntry = 0;
};

} // namespace cirrovault

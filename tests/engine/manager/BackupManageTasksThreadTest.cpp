// Task creation, edit, deletion and versions through the manager, on a real local store.
#include <gtest/gtest.h>

#include <algorithm>

#include "common/EngineSession.h"
#include "common/LocalDate.h"
#include "engine/manager/ManagerDoubles.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/ProgressModeHost.h"
#include "service/CManageTaskList.h"
#include "support/GlobalFunction.h"

using namespace cirrovault;

namespace {

using TaskPtr = std::shared_ptr<CBackupTask>;

// A progress window whose user has pressed Cancel as soon as it came up.
class CancellingWindow : public ProgressModeHost {
public:
    void EnterProgressMode(Thread* thread) override {
        entered = thread;
        thread->start();
    }
    void LeaveProgressModel(Thread* thread) override { left = thread; }
    bool IsCancelProgressModel(Thread*) override { return true; }
    std::shared_ptr<TrueProgressCallback> getProgressInfo(Thread*) override { return nullptr; }
    Thread* entered = nullptr;
    Thread* left = nullptr;
};

class BackupManageTasksThread : public test::ManagerSession {
protected:
    void SetUp() override {
        ManagerSession::SetUp();
        Clock::setShared(clock_);
    }

    Date now() const { return clock_->now(); }

    TaskPtr makeTask(const std::string& name) {
        return ManagerSession::makeTask(name, now().addingTimeInterval(86400 * 30));
    }
    // A task over the given paths, moving here from another computer or not.
    static TaskPtr sourced(const std::string& name, std::vector<std::string> paths,
                           bool migrating) {
        auto task = std::make_shared<CBackupTask>();
        task->name = name;
        task->serverPath = "\\Backups\\" + name;
        task->bMigrateTask = migrating;
        task->localDirList.assign(paths.begin(), paths.end());
        return task;
    }
    TaskPtr registered(const std::string& name) {
        TaskPtr task = makeTask(name);
        EXPECT_TRUE(manager_.AddTask(task));
        return task;
    }
    // One whole run started as the user would; returns the files it stored.
    int run(const TaskPtr& task) {
        int before = store_->putCount();
        EXPECT_TRUE(manager_.StartBackupByUser(task->name, false));
        finish(task);
        EXPECT_EQ(task->mTaskState, CBackupTask::StateSucceeded);
        return store_->putCount() - before;
    }
    void finish(const TaskPtr& task) {
        started_.push_back(task);
        std::shared_ptr<Thread> worker = task->pBackupTaskThread;
        task->checkFinshedBackup();
        if (worker)
            worker->join();
    }
    // A change to a.txt that the next run uploads, keeping the old copy as a version.
    void change(const std::string& name, int round) {
        makeFile(name + "/a.txt", "alpha " + std::string(round, '+'),
                 1'600'000'000.0 + 3600 * round);
    }
    StoreItem item(const std::string& path) {
        StoreItem found;
        if (local_->stat(path, found) != ResultCode::Success)
            found.fileCount = -1;
        return found;
    }
    std::string historyRoot() {
        CBackupTask probe;
        return probe.getSvrHistoryFolder(false);
    }
    bool onService(const std::string& name) {
        CManageTaskList list;
        list.getTaskNames("false");
        return std::count(list.taskNamesArray.begin(), list.taskNamesArray.end(), name) > 0;
    }
    bool listed(const TaskPtr& task) {
        std::lock_guard lock(manager_.managerLock);
        return std::find(manager_.taskList.begin(), manager_.taskList.end(), task) !=
               manager_.taskList.end();
    }

    std::shared_ptr<ManualClock> clock_ =
        std::make_shared<ManualClock>(test::localDate(2011, 3, 5, 14, 7, 9));
};

TEST_F(BackupManageTasksThread, NewTaskNamesSettersEndNewTaskAndRefusedRegistration) {
    auto named = [](int n) { return LoadString::Format("IDS_TASKNAMEFOR", n); };
    for (int n : {0, 2})
        manager_.taskList.push_back(makeTask(named(n)));
    EXPECT_EQ(manager_.CreateRandomName(), named(1)); // the gap first
    for (int n : {1, 3, 4})
        manager_.taskList.push_back(makeTask(named(n)));
    EXPECT_EQ(manager_.CreateRandomName(), named(5));

    // Without a session the account's figures cannot be had: the user is told.
    api().Logoff();
    EXPECT_FALSE(manager_.BeginNewTask());
    EXPECT_FALSE(manager_.IsCreateingTask());
    ASSERT_EQ(dialogs_->shown().size(), 1u);
    EXPECT_EQ(dialogs_->shown()[0].text, TransferApiUtil::stringWithReturnCode(1));
    ASSERT_EQ(api().Logon("alice", "secret"), ResultCode::Success);

    ASSERT_TRUE(manager_.BeginNewTask());
    TaskPtr first = manager_.GetNewTask();
    EXPECT_EQ(first->name + "|" + first->description, named(5) + "|" + named(5));
    EXPECT_EQ(first->pcID, kPc);
    ASSERT_TRUE(manager_.BeginNewTask());
    EXPECT_EQ(manager_.GetNewTask(), first);

    EXPECT_TRUE(manager_.SetMaxVersions(3));
    EXPECT_EQ(first->uiMaxVersion, 10u); // the limit comes from the service's task list

    // Ending the wizard scans the sources and registers the task, or keeps it back.
    manager_.InitLocalFolderlist({home_.file("missing")});
    manager_.SetServerFolder("\\Backups\\New");
    EXPECT_FALSE(manager_.EndNewTask());
    EXPECT_TRUE(SystemLog::capturedContains("Error: scan file array is empty"));
    EXPECT_TRUE(manager_.IsCreateingTask()); // the wizard may go on
    makeFile("New/a.txt", "alpha");
    manager_.InitLocalFolderlist({home_.file("New")});
    manager_.SetEndDate(now().addingTimeInterval(-60)); // no run at once
    ASSERT_TRUE(manager_.EndNewTask());
    EXPECT_FALSE(manager_.IsCreateingTask());
    EXPECT_EQ(manager_.GetTaskByName(first->name), first);
    EXPECT_TRUE(onService(first->name));
    EXPECT_EQ(first->mTaskState, CBackupTask::StateIdle);

    ASSERT_TRUE(manager_.BeginNewTask());
    manager_.CancelNewTask();
    EXPECT_FALSE(manager_.SetMaxVersions(3));
    manager_.setType(1);
    EXPECT_TRUE(SystemLog::capturedContains("New task class is empty"));

    // A registration the service refuses: the newcomer leaves the list, a task of the
    // same name that was there before stays.
    manager_.taskList.clear();
    TaskPtr original = makeTask("Docs");
    manager_.taskList.push_back(original);
    TaskPtr twin = makeTask("Docs");
    api().Logoff();
    dialogs_->clearShown();
    EXPECT_FALSE(manager_.AddTask(twin));
    ASSERT_EQ(dialogs_->shown().size(), 1u);
    EXPECT_EQ(dialogs_->shown()[0].text, "Not logon.");
    EXPECT_EQ(manager_.taskList, std::vector<TaskPtr>{original});
}

TEST_F(BackupManageTasksThread,
       DeletionRemovesOrRenamesUnlessCancelledAndAddTaskStartsOnlyWhenDue) {
    TaskPtr docs = registered("Docs"), keep = registered("Keep"); // due in a month
    EXPECT_TRUE(manager_.waitingList.empty());
    EXPECT_EQ(manager_.pWorkingTask, nullptr);
    for (const auto& task : {docs, keep}) {
        EXPECT_EQ(run(task), 2);
        change(task->name, 1);
        EXPECT_EQ(run(task), 1);
    }
    ASSERT_TRUE(exists(historyRoot() + "\\Docs"));

    // Cancelled before the service deleted anything: folders, record and task stay.
    auto window = std::make_shared<CancellingWindow>();
    ProgressModeHost::setProvider([window] { return window; });
    EXPECT_FALSE(manager_.BatchDeleteTask("Docs", true));
    EXPECT_NE(window->entered, nullptr);
    EXPECT_EQ(window->left, window->entered);
    EXPECT_TRUE(exists("\\Backups\\Docs\\Docs\\a.txt"));
    EXPECT_TRUE(listed(docs) && onService("Docs"));

    ProgressModeHost::setProvider(nullptr);
    EXPECT_TRUE(manager_.BatchDeleteTask("Docs", true));
    EXPECT_TRUE(docs->bDeleting);
    EXPECT_FALSE(exists("\\Backups\\Docs") || exists(historyRoot() + "\\Docs"));
    EXPECT_FALSE(listed(docs) || onService("Docs"));
    EXPECT_TRUE(onService("Keep"));
    EXPECT_TRUE(exists("\\Backups\\Keep\\Keep\\b.txt"));
    EXPECT_EQ(host_.countOf(":6"), 2u);
    EXPECT_TRUE(SystemLog::capturedContains("Successful manage delete task Delegate."));

    // Keeping the server files renames both folders to "<computer>.<time>.<task>", and
    // a cancel does not stop the renaming and the removal.
    ProgressModeHost::setProvider([window] { return window; });
    EXPECT_FALSE(manager_.BatchDeleteTask("Keep", false));
    ProgressModeHost::setProvider(nullptr);
    const std::string kept = GlobalFunction::getPCName() + ".2011-03-05 14-07-";
    std::vector<StoreItem> backups;
    ASSERT_EQ(local_->list("\\Backups", backups), ResultCode::Success);
    ASSERT_EQ(backups.size(), 1u);
    EXPECT_TRUE(backups[0].name.starts_with(kept) && backups[0].name.ends_with(".Keep"))
        << backups[0].name;
    EXPECT_EQ(backups[0].fileCount, 2);
    EXPECT_EQ(item(historyRoot() + "\\" + backups[0].name).fileCount, 1); // the version
    EXPECT_FALSE(exists(historyRoot() + "\\Keep"));
    EXPECT_FALSE(listed(keep) || onService("Keep"));

    TaskPtr over = makeTask("Over");
    over->taskType = CBackupTask::ScheduleNone;
    over->mEndDate = now().addingTimeInterval(-1);
    ASSERT_TRUE(manager_.AddTask(over));
    EXPECT_TRUE(listed(over) && manager_.waitingList.empty());
    manager_.SetRestoreWorkingFile(std::string("/x"), std::string("\\x"));
    TaskPtr now = makeTask("Now");
    now->taskType = CBackupTask::ScheduleNone;
    now->mBeginDate = this->now().addingTimeInterval(-10);
    now->mEndDate = this->now().addingTimeInterval(10);
    ASSERT_TRUE(manager_.AddTask(now));
    {
        std::lock_guard lock(manager_.managerLock);
        EXPECT_EQ(manager_.pWorkingTask, now);
        EXPECT_FALSE(listed(now)); // it runs as the working task, outside the list
        EXPECT_EQ(manager_.waitingList, std::vector<TaskPtr>{now});
        EXPECT_EQ(manager_.strWorkingFile + manager_.strServerWorkingFile, "");
    }
    finish(now);
    EXPECT_EQ(now->mTaskState, CBackupTask::StateSucceeded);
    EXPECT_TRUE(exists("\\Backups\\Now\\Now\\a.txt"));
    EXPECT_EQ(host_.countOf("Now:1"), 1u);
}

TEST_F(BackupManageTasksThread, RenameKeepsBackupsAndVersionsUnderTheNewNameWhereTheyCanBeDeleted) {
    TaskPtr docs = registered("Docs");
    run(docs);
    change("Docs", 1);
    run(docs);
    const std::vector<std::string> sources = {home_.file("Docs")};

    docs->name = "Papers";
    docs->backupFileArray = sources;
    docs->addFileArray = {"stale"};
    ASSERT_EQ(manager_.editBackupTask(docs, "Docs"), 0);
    EXPECT_EQ(docs->serverPath, "\\Backups\\Papers");
    EXPECT_EQ(docs->localDirList, std::vector<SourceEntry>(sources.begin(), sources.end()));
    EXPECT_TRUE(docs->addFileArray.empty() && docs->backupFileArray.empty());
    EXPECT_FALSE(exists("\\Backups\\Docs") || exists(historyRoot() + "\\Docs"));
    EXPECT_EQ(item("\\Backups\\Papers").fileCount, 2);
    EXPECT_EQ(item(historyRoot() + "\\Papers").fileCount, 1);
    EXPECT_TRUE(onService("Papers") && !onService("Docs"));

    EXPECT_EQ(run(docs), 0); // nothing changed, nothing sent again
    change("Docs", 2);
    EXPECT_EQ(run(docs), 1);
    EXPECT_EQ(item(historyRoot() + "\\Papers").fileCount, 2); // the versions go on

    // Selected versions are deleted for their own task only.
    const std::string versions = historyRoot() + "\\Papers\\Docs";
    std::vector<StoreItem> kept;
    ASSERT_EQ(local_->list(versions, kept), ResultCode::Success);
    ASSERT_EQ(kept.size(), 2u);
    EXPECT_TRUE(manager_.DeleteFileVersions({versions + "\\" + kept[0].name}, "Nobody"));
    EXPECT_TRUE(exists(versions + "\\" + kept[0].name));
    EXPECT_TRUE(manager_.DeleteFileVersions({versions + "\\" + kept[0].name}, "Papers"));
    EXPECT_FALSE(exists(versions + "\\" + kept[0].name));
    EXPECT_TRUE(exists(versions + "\\" + kept[1].name));
    EXPECT_TRUE(docs->deleteFileArray.empty());

    // A rename the service refuses leaves the task where its record is.
    TaskPtr other = registered("Other");
    docs->name = "Other";
    dialogs_->clearShown();
    EXPECT_NE(manager_.editBackupTask(docs, "Papers"), 0);
    EXPECT_EQ(dialogs_->shown().size(), 1u);
    EXPECT_EQ(docs->serverPath, "\\Backups\\Papers");
    EXPECT_EQ(item("\\Backups\\Papers").fileCount, 2);
    EXPECT_FALSE(exists("\\Backups\\Other"));
    EXPECT_EQ(item(historyRoot() + "\\Papers").fileCount, 1);
}

TEST_F(BackupManageTasksThread, MigrationOfDriveSourcesRefusedMigrationAndRestoreViewContext) {
    auto foreign = [&](const std::string& name, std::vector<std::string> paths) {
        TaskPtr task = sourced(name, paths, true);
        task->pcID = 99;
        task->mEndDate = now().addingTimeInterval(-1); // no run at once
        EXPECT_TRUE(manager_.AddTask(task));
        return task;
    };
    auto newSources = [](const TaskPtr& task) {
        std::vector<std::string> paths;
        for (const auto& entry : task->localDirList)
            paths.push_back(entry.path());
        return paths;
    };
    TaskPtr drives = foreign("Drives", {"C:\\Users\\bob", "D:\\Media"});
    EXPECT_TRUE(manager_.MigrateTaskToCurrentPC("/new", drives, 0));
    EXPECT_EQ(newSources(drives), (std::vector<std::string>{"/new/C", "/new/D"}));
    EXPECT_EQ(drives->pcID, kPc);
    EXPECT_EQ(drives->mPCName, GlobalFunction::GetMachineName());
    EXPECT_TRUE(drives->addFileArray.empty() && drives->deleteFileArray.empty());

    TaskPtr one = foreign("One", {"E:\\"});
    EXPECT_TRUE(manager_.MigrateTaskToCurrentPC("/new", one, 1));
    EXPECT_EQ(newSources(one), std::vector<std::string>{"/new/E"});

    // A task the service does not know: the user is told, nothing is kept pending.
    auto unknown = std::make_shared<CBackupTask>();
    unknown->name = "Unknown";
    unknown->localDirList = {"/a/b"};
    unknown->sourceInfoArray = {{{"PathID", "/a/b"}, {"TypeID", "1"}}};
    EXPECT_FALSE(manager_.MigrateTaskToCurrentPC("/new", unknown, 3));
    EXPECT_TRUE(unknown->sourceInfoArray.empty());
    EXPECT_EQ(dialogs_->shown().size(), 1u);
    EXPECT_FALSE(manager_.MigrateTaskToCurrentPC("/new", nullptr, 3));

    manager_.taskList = {sourced("Drives", {"C:\\", "D:\\"}, true),
                         sourced("Drive", {"C:\\"}, true),
                         sourced("Here", {"/home/bob/Docs"}, false)};
    // Kinds 2 and 3 are seen in the migration tests.
    for (auto [name, kind, local] : {std::tuple{"Drives", 0, ""}, std::tuple{"Drive", 1, "C:\\"}}) {
        manager_.GetTaskInformationForRestoreView(name);
        EXPECT_EQ(manager_.nOSBackupDataType, kind) << name;
        EXPECT_EQ(manager_.taskBackupLogLocalPath, local) << name;
        EXPECT_EQ(manager_.taskServerPath, std::string("\\Backups\\") + name);
        EXPECT_EQ(manager_.taskHistoryPath, historyRoot());
    }

    EXPECT_TRUE(manager_.IsWorkingTaskForRestore("Nobody"));
    EXPECT_FALSE(manager_.IsWorkingTaskForRestore("Here"));
    manager_.SetRestoreWorkingFile(std::string("  /Home/Bob/Docs/A.TXT \t"),
                                   std::string(" \\Backups\\Here\\A.TXT "));
    EXPECT_EQ(manager_.strWorkingFile, "/home/bob/docs/a.txt");
    EXPECT_EQ(manager_.strServerWorkingFile, "\\backups\\here\\a.txt");
    manager_.setWrokingFile(std::nullopt, std::nullopt);
    EXPECT_EQ(manager_.strWorkingFile, "");
}

} // namespace

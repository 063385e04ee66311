// A task moves to a second computer (its own data folder, so its own identity): pointed
// at a copy of the same files, its next run sends none of them again.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "common/EngineSession.h"
#include "engine/manager/CBackupManage.h"
#include "platform/framework/Functions.h"
#include "service/CManageTaskList.h"

using namespace cirrovault;

namespace {

using TaskPtr = std::shared_ptr<CBackupTask>;
constexpr double kFileTime = 1'600'000'000.0;

class TaskMigrationThread : public test::EngineSession {
protected:
    void SetUp() override {
        EngineSession::SetUp();
        Clock::setShared(clock_);
        first_.initMyID();
    }

    // The same files (content and modification time) under root.
    void writeFiles(const std::string& root, const std::vector<std::string>& names) {
        for (const auto& name : names) {
            std::string path = root + "/" + name;
            FileSystem::createDirectories(path.substr(0, path.find_last_of('/')));
            FileSystem::writeFileAtomically(path, "content of " + name);
            FileSystem::setModifyTime(path, Date(kFileTime));
        }
    }
    // One whole run of a task of the manager, as the user starts it; the files stored.
    int run(CBackupManage& manager, const std::string& name) {
        int before = store_->putCount();
        TaskPtr task = manager.GetTaskByName(name);
        if (!task || !manager.StartBackupByUser(name, false))
            return -1;
        std::shared_ptr<Thread> worker = task->pBackupTaskThread;
        task->checkFinshedBackup();
        worker->join();
        EXPECT_EQ(task->mTaskState, CBackupTask::StateSucceeded) << name;
        return store_->putCount() - before;
    }
    // One task with its paths, or (as logon asks) every task without them.
    std::string reply(const std::string& name) {
        CManageTaskList list;
        return list.getBackupTasks(name, name.empty() ? "false" : "true");
    }
    // The second computer: its own data folder and identity, the task list loaded.
    void startSecondComputer() {
        secondHome_ = std::make_unique<test::TempHome>();
        clock_->advance(60); // started later: its identity is drawn from the time
        second_.initMyID();
        ASSERT_NE(second_.pcID, first_.pcID);
        ASSERT_TRUE(second_.LoadTaskList(reply("")));
    }
    // The second computer takes the task over under a new root holding the same files,
    // then runs it twice: nothing is sent again, then only the new file.
    TaskPtr moveAndRun(const std::string& name, const std::vector<std::string>& files,
                       int32_t kind, const std::string& oldRoot, const std::string& newFile) {
        startSecondComputer();
        TaskPtr moving = second_.GetTaskByName(name);
        if (!moving || !moving->bMigrateTask) {
            ADD_FAILURE() << name << " is not offered for migration";
            return moving;
        }
        EXPECT_FALSE(second_.nowDating(moving)); // never scheduled before it has moved
        second_.GetTaskInformationForRestoreView(name);
        EXPECT_EQ(second_.nOSBackupDataType, kind);
        EXPECT_EQ(second_.taskBackupLogLocalPath, oldRoot);

        const std::string newRoot = secondHome_->file("moved");
        writeFiles(newRoot, files);
        EXPECT_TRUE(second_.MigrateTaskToCurrentPC(newRoot, moving, second_.nOSBackupDataType));
        EXPECT_EQ(sources(moving), (std::vector<std::string>{newRoot + "/Docs", newRoot + "/Pics"}));
        std::string record = reply(name);
        EXPECT_EQ(Functions::GetValueArrayByKey("RETURN_Path", record), sources(moving));
        EXPECT_EQ(Functions::GetValueArrayByKey("RETURN_PcID", record),
                  std::vector<std::string>{std::to_string(second_.pcID)});

        EXPECT_EQ(run(second_, name), 0);
        writeFiles(newRoot, {newFile});
        EXPECT_EQ(run(second_, name), 1);
        EXPECT_TRUE(exists("\\Backups\\" + name + "\\" + newFile.substr(0, 4) + "\\" +
                           newFile.substr(5)));
        return moving;
    }
    std::vector<std::string> sources(const TaskPtr& task) {
        std::vector<std::string> paths;
        for (const auto& entry : task->localDirList)
            paths.push_back(entry.isRecord() ? entry.record().m_strPath : entry.path());
        return paths;
    }

    std::shared_ptr<ManualClock> clock_ = std::make_shared<ManualClock>(Date(kFileTime + 86400));
    CBackupManage first_;
    std::unique_ptr<test::TempHome> secondHome_;
    CBackupManage second_;
};

TEST_F(TaskMigrationThread, TaskOfThisSystemMovesToANewRoot) {
    const std::vector<std::string> files = {"Docs/a.txt", "Docs/deep/b.txt", "Pics/c.jpg"};
    writeFiles(home_.file("old"), files);
    auto task = std::make_shared<CBackupTask>();
    task->name = "Home";
    task->pcID = first_.pcID;
    task->serverPath = "\\Backups\\Home";
    task->localDirList = {home_.file("old/Docs"), home_.file("old/Pics")};
    task->taskType = CBackupTask::ScheduleDaily;
    task->mDating = clock_->now().addingTimeInterval(86400 * 30);
    ASSERT_TRUE(first_.AddTask(task));
    EXPECT_EQ(run(first_, "Home"), 3);

    moveAndRun("Home", files, 3, home_.file("old"), "Docs/new.txt");

    // Loaded afresh, the task is this computer's own.
    CBackupManage again;
    again.pcID = second_.pcID;
    ASSERT_TRUE(again.LoadTaskList(reply("")));
    ASSERT_TRUE(again.GetTaskByName("Home"));
    EXPECT_FALSE(again.GetTaskByName("Home")->bMigrateTask);
}

TEST_F(TaskMigrationThread, TaskOfTheOtherSystemWithACommonParentMoves) {
    // The other system's record, with drive-letter paths, and its files in the task's
    // folder, one sub-folder per source.
    TaskListEntry record;
    record.taskID = 4242;
    record.pcID = 31337;
    record.name = "Win";
    record.mPCName = "office";
    record.taskType = CBackupTask::ScheduleDaily;
    record.serverPath = "\\Backups\\Win";
    record.mDating = clock_->now().addingTimeInterval(86400 * 30);
    record.mBeginDate = clock_->now().addingTimeInterval(-86400);
    record.mEndDate = clock_->now().addingTimeInterval(86400 * 365);
    record.localDirList = {"C:\\Users\\bob\\Docs", "C:\\Users\\bob\\Pics"};
    CManageTaskList list;
    ASSERT_EQ(list.addOrEditBackupTask(record, "Add", "0", "Win", "1"), 0);

    const std::vector<std::string> files = {"Docs/a.txt", "Docs/deep/b.txt", "Pics/c.jpg"};
    for (const char* folder : {"\\Backups", "\\Backups\\Win", "\\Backups\\Win\\Docs",
                               "\\Backups\\Win\\Docs\\deep", "\\Backups\\Win\\Pics"})
        ASSERT_EQ(local_->makeFolder(folder, "", ""), ResultCode::Success);
    for (std::string name : files) {
        std::string content = "content of " + name;
        std::replace(name.begin(), name.end(), '/', '\\');
        putCopy("\\Backups\\Win\\" + name, content, kFileTime);
    }

    moveAndRun("Win", files, 2, "C:\\Users\\bob", "Pics/d.jpg");
}

} // namespace

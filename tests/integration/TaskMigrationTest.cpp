// Another computer's task moves here: pointed at a copy of the same files, its next run
// sends none of them again, and its record names this computer (a later logon loads it as
// this computer's own). The wait dialog is the headless one.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "common/EngineSession.h"
#include "engine/manager/CBackupManage.h"
#include "platform/framework/Functions.h"
#include "platform/framework/LoadString.h"
#include "platform/view/ViewLayout.h"
#include "platform/view/headless/HeadlessViewBackend.h"
#include "service/CManageTaskList.h"
#include "ui/LoopDlgController.h"

using namespace cirrovault;

namespace {

constexpr double kFileTime = 1'600'000'000.0;

class TaskMigrationThread : public test::EngineSession {
protected:
    void TearDown() override {
        CLoopItem::setFactory(nullptr);
        EngineSession::TearDown();
    }
    std::shared_ptr<ManualClock> clock_ = std::make_shared<ManualClock>(Date(kFileTime + 86400));
    std::shared_ptr<HeadlessViewBackend> backend_ = std::make_shared<HeadlessViewBackend>();
};

// The other system's record has drive-letter paths; its files, one folder per source.
TEST_F(TaskMigrationThread, TaskOfTheOtherSystemWithACommonParentMovesThenLogOffSaysSo) {
    Clock::setShared(clock_);
    LoopDlgController::installFactory(backend_);
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
    ASSERT_EQ(CManageTaskList().addOrEditBackupTask(record, "Add", "0", "Win", "1"), 0);
    for (const char* folder : {"\\Backups", "\\Backups\\Win", "\\Backups\\Win\\Docs",
                               "\\Backups\\Win\\Docs\\deep", "\\Backups\\Win\\Pics"})
        ASSERT_EQ(local_->makeFolder(folder, "", ""), ResultCode::Success);
    // The same files (content and modification time) on the store and under the new root.
    const std::string newRoot = home_.file("moved");
    auto place = [&](std::string name) { return makeFile("moved/" + name, "content of " + name, kFileTime); };
    for (std::string name : {"Docs/a.txt", "Docs/deep/b.txt", "Pics/c.jpg"}) {
        place(name);
        std::string stored = "\\Backups\\Win\\" + name;
        std::replace(stored.begin(), stored.end(), '/', '\\');
        putCopy(stored, "content of " + name, kFileTime);
    }

    CBackupManage second;
    second.initMyID();
    ASSERT_NE(second.pcID, 31337u);
    ASSERT_TRUE(second.LoadTaskList(CManageTaskList().getBackupTasks("", "false"))); // as logon asks
    auto moving = second.GetTaskByName("Win");
    ASSERT_TRUE(moving && moving->bMigrateTask);
    EXPECT_FALSE(second.nowDating(moving)); // never scheduled before it has moved
    second.GetTaskInformationForRestoreView("Win");
    EXPECT_EQ(second.nOSBackupDataType, 2);
    EXPECT_EQ(second.taskBackupLogLocalPath, "C:\\Users\\bob");

    EXPECT_TRUE(second.MigrateTaskToCurrentPC(newRoot, moving, second.nOSBackupDataType));
    // The runs below send from the new root: nothing of the same files, one new file.
    std::string stored = CManageTaskList().getBackupTasks("Win", "true");
    EXPECT_EQ(Functions::GetValueArrayByKey("RETURN_Path", stored),
              (std::vector<std::string>{newRoot + "/Docs", newRoot + "/Pics"}));
    EXPECT_EQ(Functions::GetValueArrayByKey("RETURN_PcID", stored),
              std::vector<std::string>{std::to_string(second.pcID)});
    runToEnd(*moving);
    EXPECT_EQ(store_->putCount(), 0);
    place("Pics/d.jpg");
    runToEnd(*moving);
    EXPECT_EQ(moving->mTaskState, CBackupTask::StateSucceeded);
    EXPECT_EQ(store_->putCount(), 1);
    EXPECT_TRUE(exists("\\Backups\\Win\\Pics\\d.jpg"));

    // Log-off says so in the wait dialog, ends the session and empties the list.
    second.logOff(false);
    EXPECT_TRUE(api().sessionID().empty());
    EXPECT_TRUE(second.taskList.empty());
    auto shown = backend_->textsOf(ViewLayout::LoopDialog, ViewOutlet::LogOnStr);
    EXPECT_NE(std::find(shown.begin(), shown.end(), LoadString::GetValueByKey("IDS_LOGOFFING", "")), shown.end());
}

} // namespace

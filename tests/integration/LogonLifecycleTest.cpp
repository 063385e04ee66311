// A user's session on the real local store and the headless wait dialog: a task made in
// the wizard is found again by a fresh manager after log-off and logon.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "common/EngineSession.h"
#include "common/LocalDate.h"
#include "engine/manager/CBackupManage.h"
#include "platform/framework/LoadString.h"
#include "platform/view/ViewLayout.h"
#include "platform/view/headless/HeadlessViewBackend.h"
#include "ui/CreateViewXibController.h"
#include "ui/LoopDlgController.h"

using namespace cirrovault;

namespace {

class StepHost : public CreateViewXibControllerDelegate {
public:
    bool GoToTaskStep2Delegate(CreateViewXibController&) override { return true; }
};

class LogonLifecycleThread : public test::EngineSession {
protected:
    void SetUp() override {
        EngineSession::SetUp();
        Clock::setShared(std::make_shared<ManualClock>(Date(1'700'000'000.0)));
        LoopDlgController::installFactory(backend_);
        api().Logoff();
    }
    void TearDown() override {
        CLoopItem::setFactory(nullptr);
        EngineSession::TearDown();
    }
    std::shared_ptr<HeadlessViewBackend> backend_ = std::make_shared<HeadlessViewBackend>();
};

TEST_F(LogonLifecycleThread, TaskMadeInTheWizardIsFoundAgainAfterLogOffAndLogon) {
    makeFile("work/docs/report.txt", "quarterly numbers");
    makeFile("work/docs/notes.tmp", "scratch");
    makeFile("work/docs/cache/blob.bin", "cached");
    const std::string docs = home_.file("work/docs");

    StepHost stepHost;
    CreateViewXibController wizard(backend_);
    wizard.setDelegate(&stepHost);
    ASSERT_EQ(wizard.logon("alice", "secret"), 0);

    ASSERT_TRUE(wizard.createTaskName());
    wizard.setSetp1TaskName("Documents");
    wizard.setStep1Description("My documents");
    wizard.pStep1View->selectTypeTag(CBackupTask::ScheduleDaily);
    ASSERT_TRUE(wizard.pFilePathView->openFolder(home_.file("work")));
    const auto& rows = wizard.pFilePathView->rows();
    auto row = std::find_if(rows.begin(), rows.end(),
                            [&](const FileAttributeNode& node) { return node.filePath == docs; });
    ASSERT_NE(row, rows.end());
    ASSERT_TRUE(wizard.pFilePathView->tickRow(static_cast<size_t>(row - rows.begin())));
    wizard.nextButton();
    ASSERT_EQ(wizard.nTaskStep1ButtonType, 1);

    CBackupManage& first = *wizard.pBackupManage;
    first.SetFilter({"*.tmp"});
    first.SetFilterPath({"cache"});
    first.SetEndDate(test::localDate(2031, 6, 30, 18, 0));
    ASSERT_TRUE(first.EndNewTask());
    CBackupManage::TaskPtr made = first.GetTaskByName("Documents");
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->mTaskState, CBackupTask::StateIdle); // its first run is tomorrow

    first.logOff(false);
    EXPECT_TRUE(api().sessionID().empty());
    EXPECT_TRUE(first.taskList.empty());
    auto shown = backend_->textsOf(ViewLayout::LoopDialog, ViewOutlet::LogOnStr);
    EXPECT_NE(std::find(shown.begin(), shown.end(), LoadString::GetValueByKey("IDS_LOGOFFING", "")), shown.end());

    CBackupManage second;
    ASSERT_EQ(second.Mylogon("alice", "secret"), 0);
    CBackupManage::TaskPtr found = second.GetTaskByName("Documents");
    ASSERT_NE(found, nullptr);
    EXPECT_NE(found, made);
    EXPECT_EQ(test::recordOf(*found), test::recordOf(*made)); // the same computer: not moving
    EXPECT_EQ(fmt::format("{}|{}|{}|{}", found->description, found->taskType & CBackupTask::ScheduleKindMask,
                          fmt::join(found->filterExt, ","), fmt::join(found->filtedPath, ",")),
              fmt::format("My documents|{}|*.tmp|cache", CBackupTask::ScheduleDaily));
    EXPECT_EQ(found->pcID, second.pcID);
    EXPECT_EQ((std::vector<Date>{found->mDating, found->mBeginDate, found->mEndDate, found->mBackupDate}),
              (std::vector<Date>{made->mDating, made->mBeginDate, test::localDate(2031, 6, 30, 18, 0), made->mBackupDate}));
    ASSERT_EQ(found->loadFilePathListFromDB(), ResultCode::Success);
    EXPECT_EQ(found->localDirList, (std::vector<SourceEntry>{docs}));
}

} // namespace

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "common/ManualClockScope.h"
#include "common/ModalWorker.h"
#include "common/TempHome.h"
#include "engine/manager/CBackupManage.h"
#include "platform/framework/HeadlessMessagebox.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/ProgressModeHost.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/ResultCodes.h"
#include "platform/os/Thread.h"
#include "platform/view/ViewLayout.h"
#include "platform/view/headless/HeadlessViewBackend.h"
#include "service/CManageTaskList.h"
#include "ui/CDownloadFileController.h"
#include "ui/ProgressBarController.h"

using namespace cirrovault;

using test::underModalLoop;

// Waits (in short real steps) for the window's refresh thread to show what is asked: a
// refresh that began before the last change may show it late.
template <class Shown>
bool eventually(Shown shown) {
    for (int i = 0; i < 5000 && !shown(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return shown();
}

class ProgressThreadTest : public ::testing::Test {
protected:
    void SetUp() override { NimboMessagebox::setPresenter(boxes); }
    void TearDown() override { NimboMessagebox::setPresenter(nullptr); }

    test::TempHome home;
    test::ManualClockScope clockScope;
    std::shared_ptr<ManualClock> clock = clockScope.clock;
    std::shared_ptr<HeadlessViewBackend> backend = std::make_shared<HeadlessViewBackend>();
    std::shared_ptr<HeadlessMessagebox> boxes = std::make_shared<HeadlessMessagebox>();
};

TEST_F(ProgressThreadTest, WindowFollowsProgressObjectUntilWorkerLeaves) {
    ProgressBarController controller(backend);
    EXPECT_TRUE(controller.IsCancelProgressModel(nullptr));
    std::shared_ptr<ViewWindow> window;
    Thread* worker = nullptr;
    underModalLoop([&](Thread* t) { controller.EnterProgressMode(t); return true; }, [&](Thread* self) {
        worker = self;
        auto info = controller.getProgressInfo(self);
        window = controller.windowOf(self)->window();
        info->setTotalFiles(8);
        info->setTotalFolders(2);
        info->setDoneFiles(3);
        info->setDoneFolders(1);
        info->setTotalSize(1000);
        info->setSentSize(100); // the first byte starts the clock
        clock->advance(10);
        info->setSentSize(300); // 30 bytes a second: 700 bytes take 23 seconds
        EXPECT_TRUE(eventually([&] {
            return window->text(ViewOutlet::Left) == "6" && window->text(ViewOutlet::TimeLeft) == "0:00:23" &&
                   window->value(ViewOutlet::Bar) == 30.0;
        }));
        EXPECT_FALSE(controller.IsCancelProgressModel(self));
        controller.SetProgressMessage(self, "");
        controller.SetProgressMessage(self, "Deleting");
        controller.LeaveProgressModel(self);
    });
    EXPECT_EQ(window->text(ViewOutlet::Total) + " " + window->text(ViewOutlet::TotalLabel), "10 Total Objects:");
    EXPECT_EQ(backend->textsOf(ViewLayout::ProgressWindow, ViewOutlet::Message), std::vector<std::string>{"Deleting"});
    EXPECT_TRUE(window->isClosed() && controller.windowCount() == 0);
    EXPECT_TRUE(controller.IsCancelProgressModel(worker)); // no windows left
    EXPECT_EQ(controller.getProgressInfo(worker), nullptr);
}

// The window's close button is a cancel too: a deletion must not go on unwatched.
TEST_F(ProgressThreadTest, CancelOrCloseEndsTheLoopAndReachesTheWorker) {
    for (const char* button : {ViewButton::Cancel, ViewButton::Close}) {
        SCOPED_TRACE(button);
        auto backend = std::make_shared<HeadlessViewBackend>();
        ProgressBarController controller(backend);
        backend->pressWhenText(ViewLayout::ProgressWindow, ViewOutlet::Message, "step 2", button);
        int steps = 0;
        // The loop returns on Cancel, maybe before the worker ends.
        underModalLoop([&](Thread* t) { controller.EnterProgressMode(t); return true; }, [&](Thread* self) {
            auto info = controller.getProgressInfo(self);
            while (!controller.IsCancelProgressModel(self) && steps < 1000)
                controller.SetProgressMessage(self, "step " + std::to_string(++steps));
            EXPECT_TRUE(info->IsCancelled());
            controller.LeaveProgressModel(self);
        });
        EXPECT_EQ(steps, 2);
        EXPECT_EQ(controller.windowCount(), 0u);
    }
}

TEST_F(ProgressThreadTest, RestoreShowsRateAndTimeLeftAndStopsOnConfirmedCancelOrClose) {
    boxes->queueAnswer(MessageboxAnswer::No); // first Cancel: the user changes their mind
    boxes->queueAnswer(MessageboxAnswer::Yes); // second Cancel: stop
    boxes->queueAnswer(MessageboxAnswer::Yes); // then the close button: asks, closes the window
    CDownloadFileController controller(backend);
    Thread* worker = nullptr;
    EXPECT_TRUE(underModalLoop([&](Thread* t) { return controller.EnterProgressMode(t); }, [&](Thread* self) {
        worker = self;
        controller.iTotalSize = 1000;
        controller.setStrDownPath("/home/u/restore");
        auto progress = controller.pDownloadProgBar;
        progress->setTotalSize(1000);
        progress->setSentSize(100);
        clock->advance(10);
        progress->setSentSize(300); // 30 bytes a second, 700 left: 23 seconds
        controller.view()->window()->press(ViewButton::Cancel);
        EXPECT_FALSE(controller.IsCancelDownload(self));
        controller.view()->window()->press(ViewButton::Cancel);
        EXPECT_TRUE(controller.IsCancelDownload(self));
        controller.view()->window()->press(ViewButton::Close);
        EXPECT_EQ(controller.view()->nType, 2);
        controller.LeaveProgressModel(self);
    }));

    EXPECT_TRUE(controller.pDownloadProgBar->IsClickedCancel());
    EXPECT_EQ(controller.view()->nType, 1); // the worker's leave comes last
    EXPECT_EQ(controller.pDownloadThread, worker);
    auto window = controller.view()->window();
    EXPECT_EQ(window->text(ViewOutlet::TimeLeft) + " " + window->text(ViewOutlet::TransferRate) + " " +
                  window->text(ViewOutlet::DownPath),
              "0:00:23 30 B/s /home/u/restore");
    EXPECT_DOUBLE_EQ(window->value(ViewOutlet::FilePrgBar), 30.0);
    ASSERT_EQ(boxes->shown().size(), 3u);
    EXPECT_EQ(boxes->shown()[0].text, LoadString::GetValueByKey("IDS_STRCANCELCONFIRM"));
    EXPECT_EQ(boxes->shown()[0].style, MessageboxStyle::YesNo);
    EXPECT_EQ(boxes->shown()[2].text, LoadString::GetValueByKey("closeDownloadFileView"));

    // One view per controller; a null thread changes nothing.
    EXPECT_TRUE(controller.EnterProgressMode(worker));
    EXPECT_FALSE(controller.IsCancelDownload(nullptr));

    // Nothing to restore: no percentage and no time.
    controller.iTotalSize = 0;
    controller.refreshPrgbarDelegate();
    EXPECT_DOUBLE_EQ(window->value(ViewOutlet::FilePrgBar), 0.0);
    EXPECT_EQ(window->text(ViewOutlet::TimeLeft), "");
    controller.iTotalSize = 300;
    controller.iHasDownloadSize = 100;
    controller.refreshPrgbarDelegate();
    EXPECT_DOUBLE_EQ(window->value(ViewOutlet::FilePrgBar), 33.0); // whole percents
}

// The installed window starts the deletion's worker, and the worker closes it at its end.
TEST_F(ProgressThreadTest, InstalledControllerRunsTheManagersDeletion) {
    ViewBackend::setShared(backend);
    ProgressBarController::installProgressModeHost();
    auto& api = TransferApiUtil::shareTransferApiUtil();
    ASSERT_EQ(api.OpenService("file://" + home.file("store")), ResultCode::Success);
    ASSERT_EQ(api.Logon("alice", "secret"), ResultCode::Success);
    ASSERT_EQ(api.AddFolder("\\Docs", "", "", false), ResultCode::Success);
    TaskListEntry record;
    record.name = "Docs";
    record.serverPath = "\\Docs";
    ASSERT_EQ(CManageTaskList().addOrEditBackupTask(record, "Add", "0", "Docs", "1"), ResultCode::Success);
    CBackupManage manager;
    manager.taskList.push_back(std::make_shared<CBackupTask>());
    manager.taskList.back()->name = "Docs";
    manager.taskList.back()->serverPath = record.serverPath;

    EXPECT_TRUE(ProgressModeHost::shared());
    EXPECT_TRUE(manager.BatchDeleteTask("Docs", true));
    EXPECT_EQ(ProgressBarController::shareProgressController().windowCount(), 0u);
    EXPECT_FALSE(backend->textsOf(ViewLayout::ProgressWindow, ViewOutlet::TotalLabel).empty());

    ProgressBarController::uninstallProgressModeHost();
    EXPECT_FALSE(ProgressModeHost::shared());
    ProgressBarController::releaseProgressController();
    ViewBackend::setShared(nullptr);
    TransferApiUtil::releaseTransferApiUtil();
}

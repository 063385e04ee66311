#include <chrono>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>

#include "common/ManualClockScope.h"
#include "common/ModalWorker.h"
#include "common/TempHome.h"
#include "engine/manager/CBackupManage.h"
#include "engine/task/CBackupTask.h"
#include "platform/framework/CurlHandleController.h"
#include "platform/framework/HeadlessMessagebox.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/ProgressModeHost.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/ResultCodes.h"
#include "platform/os/SystemLog.h"
#include "platform/os/Thread.h"
#include "platform/view/ViewLayout.h"
#include "platform/view/headless/HeadlessViewBackend.h"
#include "service/CManageTaskList.h"
#include "ui/CDownloadFileController.h"
#include "ui/LoopDlgController.h"
#include "ui/ProgressBarController.h"

using namespace cirrovault;

using test::underModalLoop;
using Texts = std::vector<std::string>;

class LoopDialogThreadTest : public ::testing::Test {
protected:
    void SetUp() override { SystemLog::startCapture(); }
    void TearDown() override {
        SystemLog::stopCapture();
        CLoopItem::setFactory(nullptr);
    }

    Texts texts(const char* outlet) const { return backend->textsOf(ViewLayout::LoopDialog, outlet); }
    template <class Work>
    bool underDialog(int buttonType, Work work) {
        return underModalLoop([&](Thread* worker) { return loop.EnterLoopMode(worker, buttonType); }, work);
    }

    std::shared_ptr<HeadlessViewBackend> backend = std::make_shared<HeadlessViewBackend>();
    LoopDlgController loop{backend, false};
};

TEST_F(LoopDialogThreadTest, CancelReachesWorkerAndItsTransferAndAWorkerThatEndsAtOnceStillCloses) {
    backend->pressAfterTexts(ViewLayout::LoopDialog, ViewOutlet::LogOnStr, 3, ViewButton::Cancel);
    int messagesBeforeCancel = -1;
    Thread* worker = nullptr;
    EXPECT_TRUE(underDialog(CLoopItem::ButtonCancel, [&](Thread* self) {
        worker = self;
        auto aborted = CurlHandleController::shared().beginTransfer();
        for (int i = 0; i < 1000 && messagesBeforeCancel < 0; ++i) {
            loop.SetLoopMessage(self, "step " + std::to_string(i));
            if (loop.IsLoopCancel(self))
                messagesBeforeCancel = i + 1;
        }
        EXPECT_TRUE(*aborted);
        CurlHandleController::shared().endTransfer();
        loop.LeaveLoopMode(self);
    }));
    EXPECT_EQ(messagesBeforeCancel, 3);
    EXPECT_EQ(texts(ViewOutlet::LogOnStr), (Texts{"step 0", "step 1", "step 2"}));
    EXPECT_FALSE(loop.IsLoopCancel(worker)); // forgotten with its dialog

    // Whether the worker ends before or after the modal loop begins is up to the
    // scheduler; many rounds make both orders likely, and neither may hang.
    for (int round = 0; round < 50; ++round)
        ASSERT_TRUE(underDialog(CLoopItem::ButtonCancel, [&](Thread* self) { EXPECT_TRUE(loop.LeaveLoopMode(self)); }));
    EXPECT_EQ(loop.loopThreadCount(), 0u);
    EXPECT_EQ(SystemLog::capturedCount("LeaveLoopMode"), 51u);
    EXPECT_EQ(SystemLog::capturedCount("Rempve loop dialog."), 51u);
}

TEST_F(LoopDialogThreadTest, RetryDuringCountdownIsClearedAndBackToMessagePage) {
    backend->pressWhenText(ViewLayout::LoopDialog, ViewOutlet::RetryLogonStr, "57", ViewButton::Retry);
    int retriedAt = -1;
    EXPECT_TRUE(underDialog(CLoopItem::ButtonCancel, [&](Thread* self) {
        // A second dialog for the same thread is refused quietly.
        EXPECT_TRUE(loop.EnterLoopMode(self, CLoopItem::ButtonScanFiles));
        loop.SetLoopMessage(self, "signing in");
        loop.SetLoopType(self, CLoopItem::ButtonRetryCancel);
        auto info = loop.getLoopThreadInfo(self);
        EXPECT_EQ(info->pDlg->GetSelectedTabViewIndex(), 2);
        for (retriedAt = 59; retriedAt >= 0 && !loop.IsLoopCancel(self); --retriedAt) {
            loop.SetLoopMessage(self, "again in " + std::to_string(retriedAt));
            if (loop.IsLoopRetry(self))
                break;
        }
        loop.SetLoopMessage(self, "signing in again");
        loop.SetLoopType(self, CLoopItem::ButtonCancel);
        loop.SetRetry(self, false);
        EXPECT_FALSE(loop.IsLoopRetry(self));
        EXPECT_EQ(info->pDlg->GetSelectedTabViewIndex(), 0);
        loop.SetLoopMessage(self, "done");
        loop.LeaveLoopMode(self);
    }));
    EXPECT_EQ(retriedAt, 57);
    // While the retry page shows, messages go there; the message set while the type is
    // still 3 lands on the retry page too.
    EXPECT_EQ(texts(ViewOutlet::LogOnStr), (Texts{"signing in", "done"}));
    EXPECT_EQ(texts(ViewOutlet::RetryLogonStr),
              (Texts{"again in 59", "again in 58", "again in 57", "signing in again"}));
    EXPECT_EQ(backend->pressesOf(ViewLayout::LoopDialog, ViewButton::Retry), 1u);
}

TEST_F(LoopDialogThreadTest, ScanPageFramesFrameworkEntryPointsAndNullThreads) {
    EXPECT_TRUE(underDialog(CLoopItem::ButtonScanFiles, [&](Thread* self) {
        loop.SetLoopMessage(self, "not shown on the scan page");
        EXPECT_TRUE(loop.SetScanFileLoopMessage(self, "1.5 MB", "42", "/home/u/Pictures"));
        EXPECT_FALSE(loop.SetScanFileLoopMessage(nullptr, "1", "1", "/x") || loop.SetLoopMessage(nullptr, "x") ||
                     loop.IsLoopCancel(nullptr));
        loop.LeaveLoopModel(self); // the framework's spelling ends the loop too
    }));
    std::string shown;
    for (const char* outlet : {ViewOutlet::LogOnStr, ViewOutlet::RetryLogonStr, ViewOutlet::TotalSourceFilePath,
                               ViewOutlet::TotalSourceSize, ViewOutlet::TotalFilesCount})
        for (const auto& text : texts(outlet))
            shown += text + ";";
    EXPECT_EQ(shown, "/home/u/Pictures;1.5 MB;42;");
    EXPECT_EQ(texts(ViewOutlet::ScanFileStr).size(), 1u);
    EXPECT_TRUE(SystemLog::capturedContains("Error:LoopDlgController:getLoopThreadInfo()"));

    // The framework's entry point opens the message page with Cancel; the window's
    // close button cancels as Cancel does.
    bool cancelled = false;
    backend->pressOnShow(ViewLayout::LoopDialog, ViewButton::Close);
    EXPECT_TRUE(underModalLoop([&](Thread* worker) { return loop.EnterLoopModel(worker); }, [&](Thread* self) {
        loop.SetLoopModelMessage(self, "listing");
        while (!loop.IsCancelLoopModel(self)) {
        }
        cancelled = true;
        loop.LeaveLoopModel(self);
    }));
    EXPECT_TRUE(cancelled);
    EXPECT_FALSE(loop.EnterLoopMode(nullptr, CLoopItem::ButtonCancel));
}

TEST_F(LoopDialogThreadTest, InteractiveScanPageShowsTotalsAndCancelEmptiesTheList) {
    test::TempHome home;
    test::ManualClockScope clock; // the scan gives the dialog time to come up: here none
    for (int f = 0; f < 150; ++f) {
        std::string folder = home.file("src/d" + std::to_string(f % 3));
        FileSystem::createDirectories(folder);
        std::ofstream(folder + "/f" + std::to_string(f) + ".txt") << "data " << f;
    }
    CBackupTask task;
    task.localDirList = {home.file("src")};
    // The totals the scan page showed, on a fresh dialog that presses Cancel after cancelAfter.
    auto scan = [&](bool expected, size_t cancelAfter) {
        auto backend = std::make_shared<HeadlessViewBackend>();
        LoopDlgController::installFactory(backend);
        backend->pressAfterTexts(ViewLayout::LoopDialog, ViewOutlet::TotalFilesCount, cancelAfter, ViewButton::Cancel);
        EXPECT_EQ(task.StartScanFile(), expected);
        EXPECT_EQ(backend->pressesOf(ViewLayout::LoopDialog, ViewButton::Cancel), expected ? 0u : 1u);
        return backend->textsOf(ViewLayout::LoopDialog, ViewOutlet::TotalFilesCount);
    };
    auto totals = scan(true, 1000);
    ASSERT_FALSE(totals.empty());
    EXPECT_EQ(totals.back(), "150");
    EXPECT_LT(scan(false, 20).size(), 150u); // stopped well before the end
    EXPECT_TRUE(task.scanFileArray.empty());
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
        // The window's refresh thread may show a change late: wait for it in short real steps.
        auto shown = [&] {
            return window->text(ViewOutlet::Left) == "6" && window->text(ViewOutlet::TimeLeft) == "0:00:23" &&
                   window->value(ViewOutlet::Bar) == 30.0;
        };
        for (int i = 0; i < 5000 && !shown(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        EXPECT_TRUE(shown());
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

#include <fstream>

#include <gtest/gtest.h>

#include "common/ManualClockScope.h"
#include "common/ModalWorker.h"
#include "common/TempHome.h"
#include "engine/task/CBackupTask.h"
#include "platform/framework/CurlHandleController.h"
#include "platform/os/SystemLog.h"
#include "platform/view/ViewLayout.h"
#include "platform/view/headless/HeadlessViewBackend.h"
#include "ui/LoopDlgController.h"

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
    // The dialog's modal loop on the given page, with work as its worker.
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
        for (int count = 59; count >= 0 && !loop.IsLoopCancel(self); --count) {
            loop.SetLoopMessage(self, "again in " + std::to_string(count));
            if (loop.IsLoopRetry(self)) {
                retriedAt = count;
                loop.SetLoopMessage(self, "signing in again");
                loop.SetLoopType(self, CLoopItem::ButtonCancel);
                break;
            }
        }
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

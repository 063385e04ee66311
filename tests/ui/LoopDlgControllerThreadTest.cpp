#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/framework/CurlHandleController.h"
#include "platform/os/SystemLog.h"
#include "platform/os/Thread.h"
#include "platform/view/ViewLayout.h"
#include "platform/view/headless/HeadlessViewBackend.h"
#include "ui/LoopDlgController.h"

namespace cirrovault {
namespace {

class LoopDialogThreadTest : public ::testing::Test {
protected:
    void SetUp() override { SystemLog::startCapture(); }
    void TearDown() override { SystemLog::stopCapture(); }

    std::vector<std::string> texts(const char* outlet) const {
        return backend->textsOf(ViewLayout::LoopDialog, outlet);
    }

    std::shared_ptr<HeadlessViewBackend> backend = std::make_shared<HeadlessViewBackend>();
    LoopDlgController loop{backend, false};
};

TEST_F(LoopDialogThreadTest, CancelReachesWorkerAndItsTransfer) {
    backend->pressAfterTexts(ViewLayout::LoopDialog, ViewOutlet::LogOnStr, 3, ViewButton::Cancel);
    int messagesBeforeCancel = -1;
    bool transferAborted = false;
    Thread* self = nullptr;
    Thread worker([&] {
        auto aborted = CurlHandleController::shared().beginTransfer();
        for (int i = 0; i < 1000 && messagesBeforeCancel < 0; ++i) {
            loop.SetLoopMessage(self, "step " + std::to_string(i));
            if (loop.IsLoopCancel(self))
                messagesBeforeCancel = i + 1;
        }
        transferAborted = *aborted;
        CurlHandleController::shared().endTransfer();
        loop.LeaveLoopMode(self);
    });
    self = &worker;

    EXPECT_TRUE(loop.EnterLoopMode(&worker, CLoopItem::ButtonCancel));
    worker.join();
    EXPECT_EQ(messagesBeforeCancel, 3);
    EXPECT_TRUE(transferAborted);
    EXPECT_EQ(texts(ViewOutlet::LogOnStr), (std::vector<std::string>{"step 0", "step 1", "step 2"}));
    EXPECT_EQ(loop.loopThreadCount(), 0u);
    EXPECT_FALSE(loop.IsLoopCancel(&worker)); // forgotten with its dialog
    EXPECT_EQ(SystemLog::capturedCount("LeaveLoopMode"), 1u);
    EXPECT_EQ(SystemLog::capturedCount("Rempve loop dialog."), 1u);
}

TEST_F(LoopDialogThreadTest, RetryDuringCountdownIsClearedAndBackToMessagePage) {
    backend->pressWhenText(ViewLayout::LoopDialog, ViewOutlet::RetryLogonStr, "57", ViewButton::Retry);
    std::vector<int> tabs;
    int retriedAt = -1;
    bool retryAfterClear = true;
    bool secondEnter = false;
    Thread* self = nullptr;
    Thread worker([&] {
        // A second dialog for the same thread is refused quietly.
        secondEnter = loop.EnterLoopMode(self, CLoopItem::ButtonScanFiles);
        loop.SetLoopMessage(self, "signing in");
        loop.SetLoopType(self, CLoopItem::ButtonRetryCancel);
        auto info = loop.getLoopThreadInfo(self);
        tabs.push_back(info->pDlg->GetSelectedTabViewIndex());
        for (int count = 59; count >= 0; --count) {
            loop.SetLoopMessage(self, "again in " + std::to_string(count));
            if (loop.IsLoopCancel(self))
                break;
            if (loop.IsLoopRetry(self)) {
                retriedAt = count;
                loop.SetLoopMessage(self, "signing in again");
                loop.SetLoopType(self, CLoopItem::ButtonCancel);
                break;
            }
        }
        loop.SetRetry(self, false);
        retryAfterClear = loop.IsLoopRetry(self);
        tabs.push_back(info->pDlg->GetSelectedTabViewIndex());
        loop.SetLoopMessage(self, "done");
        loop.LeaveLoopMode(self);
    });
    self = &worker;

    EXPECT_TRUE(loop.EnterLoopMode(&worker, CLoopItem::ButtonCancel));
    worker.join();
    EXPECT_TRUE(secondEnter);
    EXPECT_EQ(retriedAt, 57);
    EXPECT_FALSE(retryAfterClear);
    EXPECT_EQ(tabs, (std::vector<int>{2, 0}));
    // While the retry page shows, messages go there; the message set while the type is
    // still 3 lands on the retry page too.
    EXPECT_EQ(texts(ViewOutlet::LogOnStr), (std::vector<std::string>{"signing in", "done"}));
    EXPECT_EQ(texts(ViewOutlet::RetryLogonStr),
              (std::vector<std::string>{"again in 59", "again in 58", "again in 57", "signing in again"}));
    EXPECT_EQ(backend->pressesOf(ViewLayout::LoopDialog, ViewButton::Retry), 1u);
}

TEST_F(LoopDialogThreadTest, WorkerThatEndsAtOnceStillClosesItsDialog) {
    // Whether the worker ends before or after the modal loop begins is up to the
    // scheduler; many rounds make both orders likely, and neither may hang.
    for (int round = 0; round < 50; ++round) {
        Thread* self = nullptr;
        bool left = false;
        Thread worker([&] { left = loop.LeaveLoopMode(self); });
        self = &worker;
        ASSERT_TRUE(loop.EnterLoopMode(&worker, CLoopItem::ButtonCancel));
        worker.join();
        EXPECT_TRUE(left);
    }
    EXPECT_EQ(loop.loopThreadCount(), 0u);
    EXPECT_EQ(SystemLog::capturedCount("LeaveLoopMode"), 50u);
}

TEST_F(LoopDialogThreadTest, ScanPageFramesFrameworkEntryPointsAndNullThreads) {
    Thread* self = nullptr;
    std::vector<bool> answers;
    Thread worker([&] {
        loop.SetLoopMessage(self, "not shown on the scan page");
        answers.push_back(loop.SetScanFileLoopMessage(self, "1.5 MB", "42", "/home/u/Pictures"));
        answers.push_back(loop.SetScanFileLoopMessage(nullptr, "1", "1", "/x"));
        answers.push_back(loop.SetLoopMessage(nullptr, "x"));
        answers.push_back(loop.IsLoopCancel(nullptr));
        loop.LeaveLoopModel(self); // the framework's spelling ends the loop too
    });
    self = &worker;
    EXPECT_TRUE(loop.EnterLoopMode(&worker, CLoopItem::ButtonScanFiles));
    worker.join();
    EXPECT_EQ(answers, (std::vector<bool>{true, false, false, false}));
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
    Thread* second = nullptr;
    bool cancelled = false;
    backend->pressOnShow(ViewLayout::LoopDialog, ViewButton::Close);
    Thread framework([&] {
        loop.SetLoopModelMessage(second, "listing");
        while (!loop.IsCancelLoopModel(second)) {
        }
        cancelled = true;
        loop.LeaveLoopModel(second);
    });
    second = &framework;
    EXPECT_TRUE(loop.EnterLoopModel(&framework));
    framework.join();
    EXPECT_TRUE(cancelled);
    EXPECT_FALSE(loop.EnterLoopMode(nullptr, CLoopItem::ButtonCancel));
}

} // namespace
} // namespace cirrovault

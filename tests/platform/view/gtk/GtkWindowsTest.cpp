#include <gtk/gtk.h>

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "common/GtkDrive.h"
#include "common/ManualClockScope.h"
#include "platform/framework/HeadlessMessagebox.h"
#include "platform/framework/SessionFixture.h"
#include "platform/os/SystemLog.h"
#include "platform/os/Thread.h"
#include "platform/view/gtk/GtkViewBackend.h"
#include "ui/CDownloadFileController.h"
#include "ui/LoopDlgController.h"
#include "ui/ProgressBarController.h"

using namespace cirrovault;
using namespace cirrovault::test;

namespace {

// From a worker: polls until the condition holds, at most ten seconds.
bool polled(const std::function<bool()>& done) {
    for (int i = 0; i < 2000 && !done(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return done();
}

// Closes the window showing text with its title bar's close button, once photographed.
Script closeWhenShown(const char* text, const char* shot) {
    return Script(nullptr, {{showing(text), [shot](GtkWidget* w) {
                                 EXPECT_TRUE(screenshot(w, shot));
                                 gtk_window_close(GTK_WINDOW(w));
                             }}});
}

class GtkWindowsTest : public test::SessionFixture {
protected:
    void SetUp() override {
        static const bool display = gtk_init_check();
        if (!display)
            GTEST_SKIP() << "no display (run under xvfb-run)";
        SessionFixture::SetUp();
        SystemLog::setVerbose(true); // errors of the windows on stderr, in the test's output
        NimboMessagebox::setPresenter(messages);
        backend = std::make_shared<GtkViewBackend>();
    }
    void TearDown() override {
        NimboMessagebox::setPresenter(nullptr);
        SystemLog::setVerbose(false);
        backend.reset();
        SessionFixture::TearDown();
    }

    std::shared_ptr<HeadlessMessagebox> messages = std::make_shared<HeadlessMessagebox>();
    std::shared_ptr<GtkViewBackend> backend;
};

// Off the main thread, a window's close button stops the work behind it, which still ends the
// loop: the progress window, the wait dialog, and the restore window once the close is confirmed.
TEST_F(GtkWindowsTest, ClosingARunsOrTheRestoreWindowStopsTheWorkBehindIt) {
    ProgressBarController controller(backend);
    Thread* self = nullptr;
    std::atomic<bool> cancelled{false}, ended{false};
    Thread worker([&] {
        controller.SetProgressMessage(self, "Deleting the task's server files");
        polled([&] { return controller.IsCancelProgressModel(self); });
        cancelled = controller.getProgressInfo(self)->IsCancelled();
        controller.LeaveProgressModel(self);
    });
    self = &worker;
    Thread host([&] {
        controller.EnterProgressMode(&worker);
        ended = true;
    });
    Script close = closeWhenShown("Deleting the task's server files", "close-button-cancels");
    host.start();
    EXPECT_TRUE(pumpUntil([&] { return ended.load(); }, 30));
    host.join();
    worker.join();
    EXPECT_TRUE(cancelled);

    LoopDlgController loop(backend, false);
    Thread* loopSelf = nullptr;
    bool loopCancelled = false;
    Thread waiting([&] {
        loop.SetLoopMessage(loopSelf, "Signing in to the service...");
        loopCancelled = polled([&] { return loop.IsLoopCancel(loopSelf); });
        loop.LeaveLoopMode(loopSelf);
    });
    loopSelf = &waiting;
    Script closeDialog = closeWhenShown("Signing in to the service...", "wait-dialog");
    EXPECT_TRUE(loop.EnterLoopMode(&waiting, CLoopItem::ButtonCancel));
    waiting.join();
    EXPECT_TRUE(loopCancelled);

    ManualClockScope clock;
    messages->queueAnswer(MessageboxAnswer::Yes); // "stop the restore?"
    CDownloadFileController restore(backend);
    Thread* restoreSelf = nullptr;
    bool stopped = false;
    Thread restoring([&] {
        restore.iTotalSize = 1000;
        restore.setStrDownPath(home_.file("restored"));
        restore.setStrRestoringFile("Documents/letters/2024-05.odt (version of 3 May)");
        auto progress = restore.pDownloadProgBar;
        progress->setTotalSize(1000);
        progress->setSentSize(100);
        clock.clock->advance(10);
        progress->setSentSize(300);
        stopped = polled([&] { return restore.IsCancelDownload(restoreSelf); });
        restore.LeaveProgressModel(restoreSelf);
    });
    restoreSelf = &restoring;
    Script closeRestore = closeWhenShown("0:00:23", "restore-progress");
    restore.EnterProgressMode(&restoring);
    restoring.join();
    EXPECT_TRUE(stopped);
}

} // namespace

#include <gtk/gtk.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "common/GtkDrive.h"
#include "platform/framework/HeadlessMessagebox.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/SessionFixture.h"
#include "platform/os/Clock.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"
#include "platform/os/Thread.h"
#include "platform/view/ViewLayout.h"
#include "platform/view/gtk/GtkViewBackend.h"
#include "ui/CDownloadFileController.h"
#include "ui/LoopDlgController.h"
#include "ui/ProgressBarController.h"

// The controllers' windows drawn by GTK and used the way a person does: typing into
// entries, clicking buttons and tick boxes, closing windows by their close button.
// Workers drive the windows from their own threads while the main thread runs them
// modally. Each test saves a screenshot of what it drove.
namespace cirrovault {
namespace {

using namespace test;

// From a worker: runs fn on the main thread (which is running a window modally) and
// waits for it, at most ten seconds.
bool onMainAndWait(const std::function<void()>& fn) {
    auto job = std::make_shared<std::packaged_task<void()>>(fn);
    auto done = job->get_future();
    auto* held = new std::shared_ptr<std::packaged_task<void()>>(job);
    g_idle_add_full(
        G_PRIORITY_DEFAULT,
        [](gpointer data) -> gboolean {
            (**static_cast<std::shared_ptr<std::packaged_task<void()>>*>(data))();
            return G_SOURCE_REMOVE;
        },
        held, [](gpointer data) { delete static_cast<std::shared_ptr<std::packaged_task<void()>>*>(data); });
    return done.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
}

// From a worker: waits until the window's GTK label shows the text.
bool eventuallyShows(GtkViewBackend& backend, const ViewWindow& window, const char* outlet,
                     const std::string& text) {
    for (int i = 0; i < 500; ++i) {
        bool shown = false;
        onMainAndWait([&] { shown = labelText(GTK_WIDGET(backend.gtkWindowOf(window)), outlet) == text; });
        if (shown)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

// Runs fn on the main loop once, `ms` from now, unless the guard goes first.
class Later {
public:
    Later(guint ms, std::function<void()> fn) : fn_(std::move(fn)), source_(g_timeout_source_new(ms)) {
        g_source_set_callback(source_, [](gpointer self) -> gboolean {
            static_cast<Later*>(self)->fn_();
            return G_SOURCE_REMOVE;
        }, this, nullptr);
        g_source_attach(source_, nullptr);
    }
    ~Later() {
        g_source_destroy(source_);
        g_source_unref(source_);
    }
    Later(const Later&) = delete;
    Later& operator=(const Later&) = delete;

private:
    std::function<void()> fn_;
    GSource* source_;
};

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
        Clock::setShared(nullptr);
        backend.reset();
        SessionFixture::TearDown();
    }

    std::shared_ptr<HeadlessMessagebox> messages = std::make_shared<HeadlessMessagebox>();
    std::shared_ptr<GtkViewBackend> backend;
};

// A window run modally off the main thread is still drawn, by the main loop.
TEST_F(GtkWindowsTest, WindowRunFromAnotherThreadIsDrawnByTheMainLoop) {
    ProgressBarController controller(backend);
    Thread* self = nullptr;
    bool shown = false;
    Thread worker([&] {
        controller.SetProgressMessage(self, "Deleting the task's server files");
        shown = eventuallyShows(*backend, *controller.windowOf(self)->window(), ViewOutlet::Message,
                                "Deleting the task's server files");
        controller.LeaveProgressModel(self);
    });
    self = &worker;
    std::atomic<bool> ended{false};
    Thread host([&] {
        controller.EnterProgressMode(&worker);
        ended = true;
    });
    host.start();
    EXPECT_TRUE(pumpUntil([&] { return ended.load(); }, 30));
    host.join();
    worker.join();
    EXPECT_TRUE(shown);
}

// The window's close button stops the work behind it, and the worker still ends
// the loop; the same for the wait dialog.
TEST_F(GtkWindowsTest, ClosingARunsWindowStopsTheWorkBehindIt) {
    ProgressBarController controller(backend);
    Thread* self = nullptr;
    std::atomic<int> steps{0};
    bool cancelled = false;
    Thread worker([&] {
        while (!controller.IsCancelProgressModel(self) && steps < 2000) {
            controller.SetProgressMessage(self, "Deleting item " + std::to_string(++steps));
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        cancelled = controller.getProgressInfo(self)->IsCancelled();
        controller.LeaveProgressModel(self);
    });
    self = &worker;
    bool shot = false;
    Later closeLater(300, [&] {
        GtkWindow* gtkWindow = backend->gtkWindowOf(*controller.windowOf(self)->window());
        shot = screenshot(GTK_WIDGET(gtkWindow), "close-button-cancels");
        gtk_window_close(gtkWindow); // the title bar's close button
    });
    controller.EnterProgressMode(&worker);
    worker.join();
    EXPECT_TRUE(shot);
    EXPECT_LT(steps, 2000);
    EXPECT_TRUE(cancelled);

    LoopDlgController loop(backend, false);
    Thread* loopSelf = nullptr;
    bool loopCancelled = false;
    Thread waiting([&] {
        loop.SetLoopMessage(loopSelf, "Signing in to the service...");
        for (int i = 0; i < 2000 && !loopCancelled; ++i) {
            loopCancelled = loop.IsLoopCancel(loopSelf);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        loop.LeaveLoopMode(loopSelf);
    });
    loopSelf = &waiting;
    Later closeDialog(300, [&] {
        GtkWindow* gtkWindow = backend->gtkWindowOf(*loop.getLoopThreadInfo(loopSelf)->pDlg->window());
        screenshot(GTK_WIDGET(gtkWindow), "wait-dialog");
        gtk_window_close(gtkWindow);
    });
    EXPECT_TRUE(loop.EnterLoopMode(&waiting, CLoopItem::ButtonCancel));
    waiting.join();
    EXPECT_TRUE(loopCancelled);
}

// Its figures are drawn for the screenshot; the close button, once the stop is
// confirmed, stops the restore.
TEST_F(GtkWindowsTest, ClosingTheRestoreWindowStopsTheRestore) {
    auto clock = std::make_shared<ManualClock>();
    Clock::setShared(clock);
    messages->queueAnswer(MessageboxAnswer::Yes); // "stop the restore?"
    CDownloadFileController controller(backend);
    Thread* self = nullptr;
    bool shot = false;
    bool stopped = false;
    Thread worker([&] {
        controller.iTotalSize = 1000;
        controller.setStrDownPath(home_.file("restored"));
        controller.setStrRestoringFile("Documents/letters/2024-05.odt (version of 3 May)");
        auto progress = controller.pDownloadProgBar;
        progress->setTotalSize(1000);
        progress->setSentSize(100);
        clock->advance(10);
        progress->setSentSize(300);
        auto window = controller.view()->window();
        EXPECT_TRUE(eventuallyShows(*backend, *window, ViewOutlet::TimeLeft, "0:00:23"));
        onMainAndWait([&] {
            GtkWindow* gtkWindow = backend->gtkWindowOf(*window);
            shot = screenshot(GTK_WIDGET(gtkWindow), "restore-progress");
            gtk_window_close(gtkWindow);
        });
        for (int i = 0; i < 2000 && !stopped; ++i) {
            stopped = controller.IsCancelDownload(self);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        controller.LeaveProgressModel(self);
    });
    self = &worker;
    controller.EnterProgressMode(&worker);
    worker.join();
    EXPECT_TRUE(shot);
    EXPECT_TRUE(stopped);
}

} // namespace
} // namespace cirrovault

#include <gtk/gtk.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <future>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/framework/HeadlessMessagebox.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/SessionFixture.h"
#include "platform/os/Clock.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"
#include "platform/os/Thread.h"
#include "platform/view/ViewLayout.h"
#include "platform/view/gtk/GtkScreenshot.h"
#include "platform/view/gtk/GtkViewBackend.h"
#include "ui/CDownloadFileController.h"
#include "ui/CreateViewXibController.h"
#include "ui/LoopDlgController.h"
#include "ui/ProgressBarController.h"

// The controllers' windows drawn by GTK and used the way a person does: typing into
// entries, clicking buttons and tick boxes, closing windows by their close button.
// Workers drive the windows from their own threads while the main thread runs them
// modally. Each test saves a screenshot of what it drove.
namespace cirrovault {
namespace {

GtkWidget* findNamed(GtkWidget* root, const std::string& name) {
    if (!root)
        return nullptr;
    if (name == gtk_widget_get_name(root))
        return root;
    for (GtkWidget* child = gtk_widget_get_first_child(root); child; child = gtk_widget_get_next_sibling(child))
        if (GtkWidget* found = findNamed(child, name))
            return found;
    return nullptr;
}

std::string labelText(GtkWidget* root, const std::string& name) {
    GtkWidget* label = findNamed(root, name);
    return label && GTK_IS_LABEL(label) ? gtk_label_get_text(GTK_LABEL(label)) : "<none>";
}

// Turns the main loop until the condition holds, at most `seconds`.
bool pumpUntil(const std::function<bool()>& done, double seconds = 10) {
    auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() > until)
            return false;
        if (!g_main_context_iteration(nullptr, FALSE))
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

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

// Saves the window as NAME.png in the screenshot folder and prints where. Main thread.
bool screenshot(GtkWindow* window, const std::string& name) {
    const char* folder = std::getenv("CV_SCREENSHOT_DIR");
    std::string dir = folder && *folder ? folder : "test-screenshots";
    FileSystem::createDirectories(dir);
    std::string path = dir + "/" + name + ".png";
    // Let the window lay itself out and paint a few frames with its last change first.
    int frames = 0;
    guint ticks = gtk_widget_add_tick_callback(
        GTK_WIDGET(window),
        [](GtkWidget*, GdkFrameClock*, gpointer count) -> gboolean {
            ++*static_cast<int*>(count);
            return G_SOURCE_CONTINUE;
        },
        &frames, nullptr);
    bool ready = pumpUntil([&] { return frames >= 3 && gtk_widget_get_width(GTK_WIDGET(window)) > 0; });
    gtk_widget_remove_tick_callback(GTK_WIDGET(window), ticks);
    bool saved = ready && saveWidgetPng(GTK_WIDGET(window), path);
    std::cout << "screenshot: " << path << (saved ? "" : " (failed)") << std::endl;
    return saved;
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
        Clock::setShared(nullptr);
        backend.reset();
        SessionFixture::TearDown();
    }

    void click(GtkWidget* root, const char* button) {
        GtkWidget* widget = findNamed(root, button);
        ASSERT_TRUE(widget && GTK_IS_BUTTON(widget)) << button;
        g_signal_emit_by_name(widget, "clicked");
    }
    void type(GtkWidget* root, const char* outlet, const std::string& text) {
        GtkWidget* widget = findNamed(root, outlet);
        ASSERT_TRUE(widget && GTK_IS_EDITABLE(widget)) << outlet;
        gtk_editable_set_text(GTK_EDITABLE(widget), text.c_str());
    }

    std::shared_ptr<HeadlessMessagebox> messages = std::make_shared<HeadlessMessagebox>();
    std::shared_ptr<GtkViewBackend> backend;
};

class StepHost : public CreateViewXibControllerDelegate {
public:
    bool GoToTaskStep2Delegate(CreateViewXibController& controller) override {
        directions.push_back(controller.nTaskStep1ButtonType);
        return true;
    }
    std::vector<int32_t> directions;
};

TEST_F(GtkWindowsTest, WizardStepChecksNextInOrderAndTicksFoldersInTheBrowser) {
    ASSERT_TRUE(FileSystem::createDirectories(home_.file("Projects/site")));
    ASSERT_TRUE(FileSystem::createDirectories(home_.file("Music")));
    makeFile("notes.txt", "to do");
    CreateViewXibController controller(backend);
    StepHost host;
    controller.setDelegate(&host);
    ASSERT_TRUE(controller.createTaskName());
    GtkWindow* step = backend->gtkWindowOf(*controller.pStep1View->window());
    ASSERT_TRUE(step);
    gtk_window_present(step);
    GtkWidget* root = GTK_WIDGET(step);
    // The proposals are in the entries.
    ASSERT_TRUE(pumpUntil([&] {
        return gtk_editable_get_text(GTK_EDITABLE(findNamed(root, ViewOutlet::TaskName))) ==
               controller.pBackupManage->getCreateNewTaskName();
    }));

    auto shownKey = [&] {
        auto shown = messages->shown();
        messages->clearShown();
        return shown.size() == 1 ? shown[0].text : "<" + std::to_string(shown.size()) + " messages>";
    };
    type(root, ViewOutlet::TaskName, "");
    click(root, ViewButton::Next);
    EXPECT_EQ(shownKey(), LoadString::GetValueByKey("EmptyTaskName"));
    type(root, ViewOutlet::TaskName, "Projects");
    type(root, ViewOutlet::TaskDescription, "   ");
    click(root, ViewButton::Next);
    EXPECT_EQ(shownKey(), LoadString::GetValueByKey("DescriptionsEmpty"));
    type(root, ViewOutlet::TaskName, "   ");
    type(root, ViewOutlet::TaskDescription, "My projects");
    click(root, ViewButton::Next);
    EXPECT_EQ(shownKey(), LoadString::GetValueByKey("TaskNameInvaild"));
    type(root, ViewOutlet::TaskName, " Projects");
    click(root, ViewButton::Next);
    EXPECT_EQ(shownKey(), LoadString::GetValueByKey("IDS_MSGSELFOLDER"));
    EXPECT_TRUE(host.directions.empty());

    // The browser, run modally: its tick box for Projects is clicked, then Done.
    FilePathTableViewController& browser = *controller.pFilePathView;
    ASSERT_TRUE(browser.openFolder(home_.path()));
    bool ticked = false;
    bool shot = false;
    Later tickAndDone(50, [&] {
        GtkWidget* window = GTK_WIDGET(backend->gtkWindowOf(*browser.window()));
        GtkWidget* list = findNamed(window, ViewOutlet::Rows);
        for (int i = 0; GtkListBoxRow* row = gtk_list_box_get_row_at_index(GTK_LIST_BOX(list), i); ++i) {
            GtkWidget* line = gtk_list_box_row_get_child(row); // tick box, icon, text
            GtkWidget* check = gtk_widget_get_first_child(line);
            std::string text = gtk_label_get_text(GTK_LABEL(gtk_widget_get_last_child(line)));
            if (text.find("Projects/") != std::string::npos) {
                gtk_check_button_set_active(GTK_CHECK_BUTTON(check), TRUE);
                ticked = true;
            }
        }
        shot = screenshot(GTK_WINDOW(window), "wizard-folder-browser");
        click(window, ViewButton::Done);
    });
    browser.runModal();
    EXPECT_TRUE(ticked);
    EXPECT_TRUE(shot);
    EXPECT_EQ(browser.getNeedBackupFilePath(), std::vector<std::string>{home_.file("Projects")});

    // Weekly turns the weekday list on; Next now passes every check.
    gtk_check_button_set_active(GTK_CHECK_BUTTON(findNamed(root, "backupTypeMatrixRadio2")), TRUE);
    EXPECT_EQ(controller.getStep1BackupType(), 2);
    ASSERT_TRUE(pumpUntil([&] { return gtk_widget_get_sensitive(findNamed(root, ViewOutlet::DaysPopupButton)); }));
    EXPECT_TRUE(screenshot(step, "wizard-step1"));
    click(root, ViewButton::Next);
    EXPECT_TRUE(messages->shown().empty());
    EXPECT_EQ(host.directions, std::vector<int32_t>{1});
    auto task = controller.pBackupManage->GetNewTask();
    ASSERT_TRUE(task);
    EXPECT_EQ(task->name, "Projects");
    EXPECT_EQ(task->description, "My projects");
}

TEST_F(GtkWindowsTest, BackupProgressWindowFollowsItsWorker) {
    auto clock = std::make_shared<ManualClock>();
    Clock::setShared(clock);
    ProgressBarController controller(backend);
    Thread* self = nullptr;
    bool shown = false;
    bool shot = false;
    Thread worker([&] {
        auto info = controller.getProgressInfo(self);
        auto window = controller.windowOf(self)->window();
        controller.SetProgressMessage(self, "Backing up Documents/letters/2024-05.odt");
        info->setTotalFiles(120);
        info->setTotalFolders(8);
        info->setDoneFiles(40);
        info->setDoneFolders(8);
        info->setTotalSize(1000);
        info->setSentSize(100);
        clock->advance(10);
        info->setSentSize(300); // 30 bytes a second from the first byte, 700 left: 23 seconds
        shown = eventuallyShows(*backend, *window, ViewOutlet::Left, "80") &&
                eventuallyShows(*backend, *window, ViewOutlet::TimeLeft, "0:00:23");
        onMainAndWait([&] { shot = screenshot(backend->gtkWindowOf(*window), "backup-progress"); });
        controller.LeaveProgressModel(self);
    });
    self = &worker;
    controller.EnterProgressMode(&worker); // runs the window on this thread until the worker leaves
    worker.join();
    EXPECT_TRUE(shown);
    EXPECT_TRUE(shot);
    EXPECT_EQ(controller.windowCount(), 0u);
}

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
        shot = screenshot(gtkWindow, "close-button-cancels");
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
        screenshot(gtkWindow, "wait-dialog");
        gtk_window_close(gtkWindow);
    });
    EXPECT_TRUE(loop.EnterLoopMode(&waiting, CLoopItem::ButtonCancel));
    waiting.join();
    EXPECT_TRUE(loopCancelled);
}

TEST_F(GtkWindowsTest, RestoreWindowShowsItsFiguresAndStopsWhenClosed) {
    auto clock = std::make_shared<ManualClock>();
    Clock::setShared(clock);
    messages->queueAnswer(MessageboxAnswer::Yes); // "stop the restore?" when closed
    CDownloadFileController controller(backend);
    Thread* self = nullptr;
    bool shown = false;
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
        progress->setSentSize(300); // 30 bytes a second, 700 left: 23 seconds
        auto window = controller.view()->window();
        shown = eventuallyShows(*backend, *window, ViewOutlet::TransferRate, "30 B/s") &&
                eventuallyShows(*backend, *window, ViewOutlet::TimeLeft, "0:00:23");
        onMainAndWait([&] {
            GtkWindow* gtkWindow = backend->gtkWindowOf(*window);
            shot = screenshot(gtkWindow, "restore-progress");
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
    EXPECT_TRUE(shown);
    EXPECT_TRUE(shot);
    EXPECT_TRUE(stopped);
    EXPECT_TRUE(controller.pDownloadProgBar->IsClickedCancel());
    ASSERT_EQ(messages->shown().size(), 1u);
    EXPECT_EQ(messages->shown()[0].text, LoadString::GetValueByKey("closeDownloadFileView"));
}

} // namespace
} // namespace cirrovault

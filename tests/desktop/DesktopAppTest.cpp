// The desktop host's windows, driven the way a user drives them, on a real display
// (Xvfb under ctest). The tests of windows leave a screenshot of what they drove.
#include <gtest/gtest.h>
#include <gtk/gtk.h>

#include <chrono>
#include <thread>

#include "BackupRunner.h"
#include "DesktopSession.h"
#include "platform/view/gtk/GtkScreenshot.h"
#include "platform/view/gtk/GtkViewBackend.h"
#include "MainWindow.h"
#include "RestoreWindow.h"
#include "TaskCreation.h"
#include "TaskFormat.h"
#include "common/TempHome.h"
#include "platform/framework/PasswordMan.h"
#include "platform/os/FileSystem.h"

namespace cirrovault::desktop {
namespace {

// Lets GTK lay out and draw what changed.
void settle(GtkWidget* widget) {
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (std::chrono::steady_clock::now() < until &&
           (!gtk_widget_get_mapped(widget) || gtk_widget_get_width(widget) == 0))
        g_main_context_iteration(nullptr, FALSE);
    for (int i = 0; i < 50; ++i) {
        while (g_main_context_iteration(nullptr, FALSE)) {
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

void screenshot(GtkWindow* window, const std::string& name) {
    settle(GTK_WIDGET(window));
    FileSystem::createDirectories(CV_SCREENSHOT_DIR);
    std::string path = std::string(CV_SCREENSHOT_DIR) + "/" + name + ".png";
    EXPECT_TRUE(saveWidgetPng(GTK_WIDGET(window), path)) << path;
    std::printf("screenshot: %s\n", path.c_str());
}

// Answers the dialog titled `title` once it shows: types `typed` into its secret fields,
// then presses the button labelled `button`.
struct DialogAnswer {
    std::string title, typed, button;
    int ticks = 0;
    bool answered = false;
};

void walk(GtkWidget* widget, DialogAnswer& answer, GtkWidget*& press) {
    if (GTK_IS_PASSWORD_ENTRY(widget))
        gtk_editable_set_text(GTK_EDITABLE(widget), answer.typed.c_str());
    if (GTK_IS_BUTTON(widget) && gtk_button_get_label(GTK_BUTTON(widget)) &&
        answer.button == gtk_button_get_label(GTK_BUTTON(widget)))
        press = widget;
    for (GtkWidget* child = gtk_widget_get_first_child(widget); child; child = gtk_widget_get_next_sibling(child))
        walk(child, answer, press);
}

void answerDialog(DialogAnswer& answer) {
    g_timeout_add(100, +[](gpointer data) -> gboolean {
        auto* a = static_cast<DialogAnswer*>(data);
        GListModel* windows = gtk_window_get_toplevels();
        for (guint i = 0; i < g_list_model_get_n_items(windows); ++i) {
            auto* window = GTK_WIDGET(g_list_model_get_item(windows, i));
            g_object_unref(window); // the list keeps it
            const char* title = gtk_window_get_title(GTK_WINDOW(window));
            if (!title || a->title != title || !gtk_widget_get_mapped(window) || gtk_widget_get_width(window) == 0)
                continue;
            GtkWidget* press = nullptr;
            walk(window, *a, press);
            if (press)
                g_signal_emit_by_name(press, "clicked");
            a->answered = press != nullptr;
            return G_SOURCE_REMOVE;
        }
        return ++a->ticks < 100 ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
    }, &answer);
}

std::string content(const std::string& path) {
    return FileSystem::readFile(path).value_or("<missing>");
}

class DesktopAppTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_TRUE(gtk_init_check()) << "no display: run under xvfb-run"; }

    void SetUp() override {
        source_ = home_.file("Documents");
        FileSystem::createDirectories(source_);
        FileSystem::writeFileAtomically(source_ + "/letter.txt", "first draft\n");
        cli::GlobalOptions options;
        options.user = "alice";
        options.password = "correct horse";
        session_ = std::make_unique<DesktopSession>(options, nullptr);
        ASSERT_TRUE(session_->logon(nullptr));
    }
    void TearDown() override {
        window_.reset();
        session_.reset();
    }

    // A task made through the engine; a daily one runs first tomorrow, one without a
    // schedule at once.
    CBackupManage::TaskPtr makeTask(const std::string& schedule, const std::string& passPhrase = "") {
        cli::TaskInput input;
        input.sources = {source_};
        input.schedule = schedule;
        input.time = "03:00";
        input.encrypt = !passPhrase.empty();
        input.check();
        auto task = cli::TaskCreation::create(session_->host(), "Documents", input, passPhrase);
        if (cli::TaskCreation::firstRunStarted(session_->host(), task))
            cli::BackupRunner(session_->host()).watch(task);
        return task;
    }

    void openWindow() {
        window_ = std::make_unique<MainWindow>(*session_, nullptr);
        gtk_window_present(window_->window());
        window_->refreshTasks();
    }

    test::TempHome home_;
    std::string source_;
    std::unique_ptr<DesktopSession> session_;
    std::unique_ptr<MainWindow> window_;
};

TEST_F(DesktopAppTest, ListsTheAccountAndATaskMadeThroughTheEngine) {
    makeTask("daily");
    openWindow();
    std::string row = window_->rowText("Documents");
    EXPECT_NE(row.find(cli::TaskFormat::stateName(CBackupTask::StateIdle)), std::string::npos) << row;
    EXPECT_NE(row.find("never"), std::string::npos) << row; // not backed up yet
    EXPECT_NE(window_->accountText().find("alice"), std::string::npos) << window_->accountText();
    EXPECT_NE(window_->accountText().find("used"), std::string::npos) << window_->accountText();
    screenshot(window_->window(), "desktop-main-window");
}

TEST_F(DesktopAppTest, BackUpNowShowsTheRunsStateAndTime) {
    auto task = makeTask("daily");
    openWindow();
    ASSERT_TRUE(window_->selectTask("Documents"));
    window_->backUpNow();
    window_->refreshTasks();
    std::string row = window_->rowText("Documents");
    EXPECT_EQ(task->mTaskState, CBackupTask::StateSucceeded);
    EXPECT_NE(row.find(cli::TaskFormat::stateName(CBackupTask::StateSucceeded)), std::string::npos) << row;
    EXPECT_NE(row.find(cli::TaskFormat::dateText(task->mBackupDate)), std::string::npos) << row;
    EXPECT_EQ(row.find("never"), std::string::npos) << row;
    screenshot(window_->window(), "desktop-backed-up");
}

TEST_F(DesktopAppTest, RestoresAnOlderVersionToAnotherFolderAndMissingFilesInPlace) {
    makeTask("none"); // backed up at once: "first draft"
    openWindow();
    FileSystem::writeFileAtomically(source_ + "/letter.txt", "second draft, longer\n");
    ASSERT_TRUE(window_->selectTask("Documents"));
    window_->backUpNow(); // keeps "first draft" as an older version

    window_->openRestore();
    RestoreWindow& restore = *window_->restoreWindow();
    ASSERT_TRUE(restore.selectFile("Documents/letter.txt"));
    auto rows = restore.versionRows();
    ASSERT_EQ(rows.size(), 2u); // current, then the older one
    ASSERT_TRUE(restore.selectVersionRow(1));
    std::string elsewhere = home_.file("restored");
    restore.setDestination(elsewhere);
    auto outcome = restore.restoreSelected();
    EXPECT_EQ(outcome.restored.size(), 1u) << restore.lastSummary();
    EXPECT_EQ(content(elsewhere + "/Documents/letter.txt"), "first draft\n");
    EXPECT_EQ(content(source_ + "/letter.txt"), "second draft, longer\n"); // the original is left alone
    screenshot(restore.window(), "desktop-restore-version");

    // Missing files come back to where they were; what exists is not touched.
    FileSystem::writeFileAtomically(source_ + "/note.txt", "kept as it is\n");
    FileSystem::removeItem(source_ + "/letter.txt");
    outcome = restore.restoreMissing();
    EXPECT_EQ(outcome.restored.size(), 1u) << restore.lastSummary();
    EXPECT_EQ(content(source_ + "/letter.txt"), "second draft, longer\n");
    EXPECT_EQ(content(source_ + "/note.txt"), "kept as it is\n");
}

TEST_F(DesktopAppTest, AsksForTheTasksPassPhraseWhenTheKeptOneDoesNotOpenItsFiles) {
    makeTask("none", "the right phrase");
    openWindow();
    ASSERT_TRUE(window_->selectTask("Documents"));
    window_->openRestore();
    RestoreWindow& restore = *window_->restoreWindow();
    ASSERT_TRUE(restore.selectFile("Documents/letter.txt"));
    // What this computer keeps is wrong now: the dialog asks, and the typed phrase opens.
    cli::RestoreSupport where(session_->host(), session_->manager().GetTaskByName("Documents"));
    ASSERT_TRUE(PasswordMan().SetPassword(where.serverFolder(), true, "a wrong phrase"));
    DialogAnswer answer{"Pass phrase", "the right phrase", "OK"};
    answerDialog(answer);
    restore.setDestination(home_.file("restored"));
    auto outcome = restore.restoreSelected();
    EXPECT_TRUE(answer.answered);
    EXPECT_EQ(outcome.restored.size(), 1u) << restore.lastSummary();
    EXPECT_EQ(content(home_.file("restored") + "/Documents/letter.txt"), "first draft\n");
}

// Without the daemon's unit the switch runs the scheduler here; off and on again, it is
// one scheduler again, not none and not two.
TEST_F(DesktopAppTest, AutomaticBackupsStartStopAndRestartTheSchedulerHere) {
    if (session_->unitInstalled())
        GTEST_SKIP() << "a daemon unit is installed on this machine";
    CBackupManage& manager = session_->manager();
    session_->setAutomatic(true);
    ASSERT_TRUE(manager.pScheduleThread);
    EXPECT_FALSE(manager.pScheduleThread->isFinished());
    session_->setAutomatic(false);
    session_->setAutomatic(true); // waits for the stop under way, then starts anew
    ASSERT_TRUE(manager.pScheduleThread);
    EXPECT_FALSE(manager.pScheduleThread->isFinished());
    EXPECT_FALSE(manager.bExit);
    session_->setAutomatic(false);
}

} // namespace
} // namespace cirrovault::desktop

// The desktop host's windows driven as a user does, on a real display (Xvfb under ctest).
#include <gtest/gtest.h>
#include <gtk/gtk.h>

#include <cstring>

#include "BackupRunner.h"
#include "DesktopSession.h"
#include "MainWindow.h"
#include "RestoreWindow.h"
#include "TaskCreation.h"
#include "TaskFormat.h"
#include "common/GtkDrive.h"
#include "common/TempHome.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/PasswordMan.h"
#include "platform/os/Calendar.h"
#include "platform/os/Clock.h"
#include "platform/os/FileSystem.h"
#include "platform/view/ViewLayout.h"

namespace cirrovault::desktop {
namespace {

using namespace test;

std::string content(const std::string& path) { return FileSystem::readFile(path).value_or("<missing>"); }

// The window's row of the task shows every part.
void rowShows(MainWindow& window, std::initializer_list<std::string> parts) {
    std::string row = window.rowText("Documents");
    for (const auto& part : parts)
        EXPECT_NE(row.find(part), std::string::npos) << part << " not in " << row;
}

class DesktopAppTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_TRUE(gtk_init_check()) << "no display: run under xvfb-run"; }

    void SetUp() override {
        FileSystem::createDirectories(source_);
        FileSystem::writeFileAtomically(source_ + "/letter.txt", "first draft\n");
        cli::GlobalOptions options;
        options.user = "alice";
        options.password = "correct horse";
        session_ = std::make_unique<DesktopSession>(options, nullptr);
        ASSERT_TRUE(session_->logon(nullptr));
    }

    // A daily task runs first tomorrow, one without a schedule at once.
    CBackupManage::TaskPtr makeTask(const std::string& schedule, const std::string& passPhrase = "",
                                    const std::string& name = "Documents") {
        cli::TaskInput input;
        input.sources = {source_};
        input.schedule = schedule;
        input.time = "03:00";
        input.encrypt = !passPhrase.empty();
        input.check();
        auto task = cli::TaskCreation::create(session_->host(), name, input, passPhrase);
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
    std::string source_ = home_.file("Documents");
    std::unique_ptr<DesktopSession> session_;
    std::unique_ptr<MainWindow> window_;
};

// The wizard from the main window: Next refuses an empty name, then a step without a
// source, and stays; with a folder ticked in the browser and a weekly schedule the task
// is made, listed, and backs up under its progress window.
TEST_F(DesktopAppTest, MakesAWeeklyTaskThroughTheWizardAndBacksItUp) {
    openWindow();
    auto step1 = named(ViewOutlet::TaskName), browser = named(ViewOutlet::Rows);
    auto box = [](const char* key) { return showing(LoadString::GetValueByKey(key)); };
    const std::string ok = LoadString::GetValueByKey("IDS_OK", "OK");
    int day = (Calendar::weekday(Clock::shared().now()) + 1) % 7; // two days ahead; 0 is Sunday
    auto name = [](const char* text) {
        return [text](GtkWidget* w) { type(w, named(ViewOutlet::TaskName), text); press(w, ViewButton::Next); };
    };
    auto shotThen = [](const char* shot, std::string button) {
        return [=](GtkWidget* w) { EXPECT_TRUE(screenshot(w, shot)); press(w, button); };
    };
    Script script(
        window_->window(),
        {
            {browser, [](GtkWidget* w) { press(w, ViewButton::Done); }}, // nothing ticked yet
            {step1, name("")},
            {box("EmptyTaskName"), shotThen("wizard-refused", ok)},
            {step1, name(" Documents")}, // still there; the leading space is not kept
            {box("IDS_MSGSELFOLDER"), [&](GtkWidget* w) { press(w, ok); }},
            {step1, [](GtkWidget* w) { press(w, ViewButton::Back); }},
            {browser,
             [](GtkWidget* w) {
                 GtkWidget* documents = find(w, [](GtkWidget* l) {
                     return GTK_IS_LABEL(l) &&
                            std::strstr(gtk_label_get_text(GTK_LABEL(l)), "Documents/");
                 });
                 ASSERT_TRUE(documents);
                 gtk_check_button_set_active(
                     GTK_CHECK_BUTTON(gtk_widget_get_first_child(gtk_widget_get_parent(documents))),
                     TRUE);
                 EXPECT_TRUE(screenshot(w, "wizard-folder-browser"));
                 press(w, ViewButton::Done);
             }},
            {step1,
             [](GtkWidget* w) {
                 gtk_check_button_set_active(
                     GTK_CHECK_BUTTON(find(w, named("backupTypeMatrixRadio2"))), TRUE);
             }},
            {[](GtkWidget* w) { // weekly turns the weekday list on
                 return named(ViewOutlet::DaysPopupButton)(w) && gtk_widget_get_sensitive(w);
             },
             [&](GtkWidget* w) {
                 gtk_drop_down_set_selected(
                     GTK_DROP_DOWN(find(w, named(ViewOutlet::DaysPopupButton))), day);
                 EXPECT_TRUE(screenshot(w, "wizard-step1"));
                 press(w, ViewButton::Next);
             }},
            {showing("Make the task"), shotThen("wizard-schedule", "Make the task")},
        });
    window_->newTask();
    EXPECT_TRUE(script.finished()) << "stopped before step " << script.stepsDone() + 1;

    auto task = session_->manager().GetTaskByName("Documents");
    ASSERT_TRUE(task);
    EXPECT_EQ(cli::TaskFormat::sources(*task), std::vector<std::string>{source_});
    EXPECT_EQ(task->taskType & CBackupTask::ScheduleKindMask, CBackupTask::ScheduleWeekly);
    EXPECT_EQ(Calendar::weekday(task->mDating), day + 1);
    EXPECT_EQ(window_->selectedTask(), "Documents");
    rowShows(*window_, {cli::TaskFormat::dateText(task->mDating), "never"}); // not backed up yet
    EXPECT_NE(window_->accountText().find("alice"), std::string::npos) << window_->accountText();
    EXPECT_TRUE(screenshot(GTK_WIDGET(window_->window()), "desktop-main-window"));

    Script progress(window_->window(), {{named(ViewOutlet::TimeLeft), [](GtkWidget* w) {
                                             EXPECT_TRUE(screenshot(w, "backup-progress"));
                                         }}});
    window_->backUpNow();
    EXPECT_TRUE(progress.finished());
    EXPECT_EQ(task->mTaskState, CBackupTask::StateSucceeded);
    rowShows(*window_, {cli::TaskFormat::stateName(CBackupTask::StateSucceeded),
                        cli::TaskFormat::dateText(task->mBackupDate)});
    EXPECT_TRUE(screenshot(GTK_WIDGET(window_->window()), "desktop-backed-up"));
}

// A run started from the list's own signal, while the window lays out its rows, does not
// lend them the fields it is writing.
TEST_F(DesktopAppTest, RowsAreReadInOnePieceWhileARunStarts) {
    auto task = makeTask("daily");
    openWindow();
    ASSERT_TRUE(window_->selectTask("Documents"));
    struct Start {
        CBackupManage& manager;
        CBackupManage::TaskPtr task;
        bool done = false;
    } start{session_->manager(), task};
    GtkWidget* list =
        find(GTK_WIDGET(window_->window()), [](GtkWidget* w) { return GTK_IS_LIST_BOX(w); });
    g_signal_connect(list, "row-selected",
                     G_CALLBACK(+[](GtkListBox*, GtkListBoxRow*, gpointer data) {
                         auto* s = static_cast<Start*>(data);
                         if (std::exchange(s->done, true))
                             return;
                         std::lock_guard lock(s->manager.managerLock);
                         s->manager.SetWorkingTask(s->task);
                         s->task->setTaskState(CBackupTask::StateRunning);
                         s->task->strErrLog = "written by the run";
                     }),
                     &start);
    makeTask("daily", "", "Music"); // the rows are laid out anew
    window_->refreshTasks();
    g_signal_handlers_disconnect_by_data(list, &start);
    EXPECT_TRUE(start.done);
    EXPECT_EQ(window_->rowText("Documents").find("written by the run"), std::string::npos)
        << window_->rowText("Documents");
    std::lock_guard lock(start.manager.managerLock);
    start.manager.SetWorkingTask(nullptr);
}

TEST_F(DesktopAppTest, RestoresAnOlderVersionMissingFilesAndAsksForAPassPhraseThatOpens) {
    makeTask("none", "the right phrase"); // backed up at once: "first draft"
    openWindow();
    FileSystem::writeFileAtomically(source_ + "/letter.txt", "second draft, longer\n");
    ASSERT_TRUE(window_->selectTask("Documents"));
    window_->backUpNow(); // keeps "first draft" as an older version

    window_->openRestore();
    RestoreWindow& restore = *window_->restoreWindow();
    EXPECT_TRUE(restore.selectFile("Documents/letter.txt"));
    auto rows = restore.versionRows();
    ASSERT_EQ(rows.size(), 2u); // current, then the older one
    ASSERT_TRUE(restore.selectVersionRow(1));
    std::string elsewhere = home_.file("restored");
    restore.setDestination(elsewhere);
    auto outcome = restore.restoreSelected();
    EXPECT_EQ(outcome.restored.size(), 1u) << restore.lastSummary();
    EXPECT_EQ(content(elsewhere + "/Documents/letter.txt"), "first draft\n");
    EXPECT_EQ(content(source_ + "/letter.txt"), "second draft, longer\n"); // the original is left alone
    EXPECT_TRUE(screenshot(GTK_WIDGET(restore.window()), "desktop-restore-version"));

    // Missing files come back to where they were; what exists is not touched.
    FileSystem::writeFileAtomically(source_ + "/note.txt", "kept as it is\n");
    FileSystem::removeItem(source_ + "/letter.txt");
    outcome = restore.restoreMissing();
    EXPECT_EQ(outcome.restored.size(), 1u) << restore.lastSummary();
    EXPECT_EQ(content(source_ + "/letter.txt"), "second draft, longer\n");
    EXPECT_EQ(content(source_ + "/note.txt"), "kept as it is\n");

    // What this computer keeps is wrong now: the dialog asks, and the typed phrase opens.
    cli::RestoreSupport where(session_->host(), session_->manager().GetTaskByName("Documents"));
    ASSERT_TRUE(PasswordMan().SetPassword(where.serverFolder(), true, "a wrong phrase"));
    Script answer(window_->window(),
                  {{[](GtkWidget* w) { return GTK_IS_PASSWORD_ENTRY(w); },
                    [](GtkWidget* w) {
                        type(w, [](GtkWidget* e) { return GTK_IS_PASSWORD_ENTRY(e); }, "the right phrase");
                        press(w, "OK");
                    }}});
    ASSERT_TRUE(restore.selectVersionRow(1));
    restore.setDestination(home_.file("asked"));
    outcome = restore.restoreSelected();
    EXPECT_TRUE(answer.finished());
    EXPECT_EQ(outcome.restored.size(), 1u) << restore.lastSummary();
    EXPECT_EQ(content(home_.file("asked") + "/Documents/letter.txt"), "first draft\n");
}

// Without the daemon's unit the switch runs one scheduler here, also off and on again.
TEST_F(DesktopAppTest, AutomaticBackupsStopAndRestartTheSchedulerHereKeepingWhatIsQueued) {
    if (session_->unitInstalled())
        GTEST_SKIP() << "a daemon unit is installed on this machine";
    auto task = makeTask("daily"); // due tomorrow
    CBackupManage& manager = session_->manager();
    session_->setAutomatic(true);
    ASSERT_TRUE(manager.AddTaskToWaitList(task, false));
    session_->setAutomatic(false);
    session_->setAutomatic(true); // waits for the stop under way, then starts anew
    EXPECT_TRUE(manager.findTaskFromWaitingList(task));
    EXPECT_EQ(task->mTaskState, CBackupTask::StateWaiting);
    ASSERT_TRUE(manager.pScheduleThread);
    EXPECT_FALSE(manager.pScheduleThread->isFinished());
    EXPECT_FALSE(manager.bExit);
    // The scheduler reads the task list anew between passes: the task is asked for by name.
    EXPECT_TRUE(pumpUntil(
        [&] {
            auto now = manager.GetTaskByName("Documents");
            std::lock_guard lock(manager.managerLock);
            return now && now->mTaskState == CBackupTask::StateSucceeded && !manager.pWorkingTask;
        },
        30));
    session_->setAutomatic(false);
}

} // namespace
} // namespace cirrovault::desktop

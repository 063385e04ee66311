#include "NewTaskWizard.h"

#include "BackupRunner.h"
#include "GtkDialogs.h"
#include "TaskCreation.h"
#include "TaskFormat.h"
#include "platform/os/Clock.h"
#include "platform/os/Host.h"
#include "ui/CreateTaskStep1.h"
#include "ui/CreateViewXibController.h"

namespace cirrovault::desktop {

using cli::TaskFormat;
using cli::text;

NewTaskWizard::NewTaskWizard(DesktopSession& session, GtkWindow* parent) : session_(session), parent_(parent) {
    session_.host().wizard().setDelegate(this);
}

NewTaskWizard::~NewTaskWizard() {
    session_.host().wizard().setDelegate(nullptr);
}

bool NewTaskWizard::GoToTaskStep2Delegate(CreateViewXibController& controller) {
    step_ = controller.nTaskStep1ButtonType == 1 ? Step::Done : Step::Browser;
    session_.host().backend()->abortModal(*controller.pStep1View->window());
    return true;
}

std::string NewTaskWizard::run() {
    CreateViewXibController& wizard = session_.host().wizard();
    CBackupManage& manager = session_.manager();
    auto backend = session_.host().backend();
    if (!wizard.createTaskName())
        return "";
    wizard.pFilePathView->clearTicks();
    wizard.pFilePathView->openFolder(Host::homeFolder());
    step_ = Step::Browser;
    // Done in the browser leads to the first step; its Back returns to the browser; its
    // Next, once every check passed, leads on. Closing either window gives up.
    while (step_ == Step::Browser) {
        wizard.pFilePathView->runModal();
        if (wizard.pFilePathView->window()->isClosed() || GtkDialogs::quitting) {
            step_ = Step::Cancelled;
            break;
        }
        step_ = Step::Step1;
        backend->runModal(wizard.pStep1View->window());
        if (step_ == Step::Step1)
            step_ = Step::Cancelled;
    }
    if (step_ != Step::Done) {
        manager.CancelNewTask();
        return "";
    }
    std::optional<cli::TaskInput> input = schedulePage(wizard.getStep1BackupType());
    std::string phrase;
    if (input && input->encrypt) {
        auto typed = GtkDialogs::askSecret(parent_, text("DesktopPassPhraseTitle", "Pass phrase"),
                                           text("DesktopNewPassPhrase", "A pass phrase for the task's files. Without it "
                                                                        "they cannot be restored: keep it safe."),
                                           true);
        if (!typed)
            input.reset();
        else
            phrase = *typed;
    }
    if (!input) {
        manager.CancelNewTask();
        return "";
    }
    try {
        auto task = cli::TaskCreation::finish(session_.host(), *input, phrase);
        // A task due at once starts its first run as it is registered: show it.
        if (cli::TaskCreation::firstRunStarted(session_.host(), task))
            cli::BackupRunner(session_.host()).watch(task);
        return task->name;
    } catch (const cli::CliError& error) {
        manager.CancelNewTask();
        GtkDialogs::message(parent_, "Cirrovault", error.what(), MessageboxStyle::Notice);
        return "";
    }
}

std::optional<cli::TaskInput> NewTaskWizard::schedulePage(int32_t stepType) {
    GtkWidget* window = gtk_window_new();
    gtk_window_set_title(GTK_WINDOW(window), text("DesktopScheduleTitle", "New task: schedule").c_str());
    gtk_window_set_modal(GTK_WINDOW(window), TRUE);
    if (parent_)
        gtk_window_set_transient_for(GTK_WINDOW(window), parent_);
    GtkWidget* box = GtkDialogs::column();

    const char* chosen = stepType == 2 ? "weekly" : stepType == 3 ? "dates" : "daily";
    GtkWidget* scheduled = gtk_check_button_new_with_label(
        text("DesktopScheduleAsChosen", "Back up {} as chosen", chosen).c_str());
    GtkWidget* none = gtk_check_button_new_with_label(
        text("DesktopScheduleNone", "No schedule: back up now and when I ask").c_str());
    gtk_check_button_set_group(GTK_CHECK_BUTTON(none), GTK_CHECK_BUTTON(scheduled));
    gtk_check_button_set_active(GTK_CHECK_BUTTON(scheduled), TRUE);
    gtk_box_append(GTK_BOX(box), scheduled);
    gtk_box_append(GTK_BOX(box), none);

    GtkWidget* from = gtk_entry_new();
    GtkWidget* until = gtk_entry_new();
    if (stepType == 3) {
        Date today = Clock::shared().now();
        gtk_editable_set_text(GTK_EDITABLE(from), TaskFormat::dateText(today).substr(0, 10).c_str());
        gtk_editable_set_text(GTK_EDITABLE(until),
                              TaskFormat::dateText(today.addingTimeInterval(30 * 86400.0)).substr(0, 10).c_str());
        gtk_box_append(GTK_BOX(box), gtk_label_new(text("DesktopFrom", "From (yyyy-mm-dd)").c_str()));
        gtk_box_append(GTK_BOX(box), from);
        gtk_box_append(GTK_BOX(box), gtk_label_new(text("DesktopUntil", "Until (yyyy-mm-dd)").c_str()));
        gtk_box_append(GTK_BOX(box), until);
    }
    GtkWidget* encrypt = gtk_check_button_new_with_label(
        text("DesktopEncrypt", "Encrypt the files with a pass phrase").c_str());
    gtk_box_append(GTK_BOX(box), encrypt);

    bool done = false;
    bool accepted = false;
    struct Answer {
        bool* done;
        bool* accepted;
    } okAnswer{&done, &accepted}, cancelAnswer{&done, nullptr};
    GtkWidget* row = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 8);
    gtk_widget_set_halign(row, GTK_ALIGN_END);
    for (auto [label, answer] : {std::pair<const char*, Answer*>{"Cancel", &cancelAnswer},
                                 std::pair<const char*, Answer*>{"DesktopCreate", &okAnswer}}) {
        GtkWidget* button = gtk_button_new_with_label(
            text(label, std::string(label) == "Cancel" ? "Cancel" : "Make the task").c_str());
        g_signal_connect(button, "clicked", G_CALLBACK(+[](GtkButton*, gpointer data) {
                             auto* a = static_cast<Answer*>(data);
                             if (a->accepted)
                                 *a->accepted = true;
                             *a->done = true;
                         }),
                         answer);
        gtk_box_append(GTK_BOX(row), button);
    }
    gtk_box_append(GTK_BOX(box), row);
    g_signal_connect(window, "close-request", G_CALLBACK(+[](GtkWindow*, gpointer flag) -> gboolean {
                         *static_cast<bool*>(flag) = true;
                         return TRUE; // destroyed below, once its fields are read
                     }),
                     &done);
    gtk_window_set_child(GTK_WINDOW(window), box);
    gtk_window_present(GTK_WINDOW(window));

    std::optional<cli::TaskInput> input;
    for (;;) {
        done = false;
        GtkDialogs::runUntil(done);
        if (!accepted)
            break;
        cli::TaskInput candidate;
        candidate.kind = gtk_check_button_get_active(GTK_CHECK_BUTTON(none)) ? CBackupTask::ScheduleNone : stepType;
        candidate.encrypt = gtk_check_button_get_active(GTK_CHECK_BUTTON(encrypt));
        bool datesOk = true;
        if (stepType == 3) {
            candidate.fromDate = TaskFormat::parseDate(gtk_editable_get_text(GTK_EDITABLE(from)), false);
            candidate.untilDate = TaskFormat::parseDate(gtk_editable_get_text(GTK_EDITABLE(until)), true);
            datesOk = candidate.fromDate && candidate.untilDate &&
                      candidate.fromDate->timeIntervalSince1970() <= candidate.untilDate->timeIntervalSince1970();
        }
        if (datesOk) {
            input = candidate;
            break;
        }
        accepted = false;
        GtkDialogs::message(GTK_WINDOW(window), "Cirrovault",
                            text("DesktopBadDates", "Give two dates as yyyy-mm-dd, the first not after the second."),
                            MessageboxStyle::Notice);
    }
    gtk_window_destroy(GTK_WINDOW(window));
    return input;
}

} // namespace cirrovault::desktop

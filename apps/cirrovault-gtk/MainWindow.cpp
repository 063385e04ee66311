#include "MainWindow.h"

#include "BackupRunner.h"
#include "GtkDialogs.h"
#include "RestoreWindow.h"
#include "NewTaskWizard.h"
#include "TaskFormat.h"
#include "platform/framework/AccountBalance.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/store/StoreBackend.h"
#include "platform/view/ViewLayout.h"
#include "support/GlobalFunction.h"

namespace cirrovault::desktop {

using cli::TaskFormat;
using cli::text;

namespace {

struct Action {
    MainWindow* window;
    void (MainWindow::*run)();
};

GtkWidget* cell(const std::string& value, int width, bool bold = false) {
    GtkWidget* label = gtk_label_new(nullptr);
    if (bold) {
        char* markup = g_markup_printf_escaped("<b>%s</b>", value.c_str());
        gtk_label_set_markup(GTK_LABEL(label), markup);
        g_free(markup);
    } else {
        gtk_label_set_text(GTK_LABEL(label), value.c_str());
    }
    gtk_label_set_xalign(GTK_LABEL(label), 0);
    gtk_label_set_ellipsize(GTK_LABEL(label), PANGO_ELLIPSIZE_END);
    gtk_widget_set_size_request(label, width, -1);
    return label;
}

constexpr int kWidths[] = {140, 110, 130, 130, 220};

// The row of a task. A running task's dates and error are its run's to change: they are
// read again once it has ended, and shown as they were meanwhile (empty: keep).
std::vector<std::string> rowValues(const CBackupTask& task, bool running) {
    if (running)
        return {task.name, TaskFormat::stateName(task.mTaskState), "", "", ""};
    int32_t kind = task.taskType & CBackupTask::ScheduleKindMask;
    return {task.name, TaskFormat::stateName(task.mTaskState), TaskFormat::dateText(task.mBackupDate),
            kind == CBackupTask::ScheduleNone ? text("DesktopNoSchedule", "when asked")
                                              : TaskFormat::dateText(task.mDating),
            task.strErrLog.value_or("")};
}

} // namespace

MainWindow::MainWindow(DesktopSession& session, GtkApplication* app) : session_(session) {
    window_ = app ? gtk_application_window_new(app) : gtk_window_new();
    gtk_window_set_title(GTK_WINDOW(window_), "Cirrovault");
    gtk_window_set_default_size(GTK_WINDOW(window_), 860, 420);
    gtk_window_set_icon_name(GTK_WINDOW(window_), "cirrovault");

    GtkWidget* box = GtkDialogs::column(12);

    GtkWidget* top = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 8);
    account_ = gtk_label_new("");
    gtk_label_set_xalign(GTK_LABEL(account_), 0);
    gtk_widget_set_hexpand(account_, TRUE);
    gtk_box_append(GTK_BOX(top), account_);
    gtk_box_append(GTK_BOX(top), gtk_label_new(text("DesktopAutomatic", "Automatic backups").c_str()));
    switch_ = gtk_switch_new();
    gtk_switch_set_active(GTK_SWITCH(switch_), session_.automatic());
    g_signal_connect(switch_, "state-set", G_CALLBACK(+[](GtkSwitch*, gboolean on, gpointer self) -> gboolean {
                         static_cast<MainWindow*>(self)->session_.setAutomatic(on);
                         static_cast<MainWindow*>(self)->refreshTasks();
                         return FALSE;
                     }),
                     this);
    gtk_box_append(GTK_BOX(top), switch_);
    gtk_box_append(GTK_BOX(box), top);

    GtkWidget* header = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 12);
    const char* titles[] = {"DesktopColumnTask", "DesktopColumnState", "DesktopColumnLast", "DesktopColumnNext",
                            "DesktopColumnError"};
    const char* english[] = {"Task", "State", "Last backup", "Next run", "Last error"};
    for (int i = 0; i < 5; ++i)
        gtk_box_append(GTK_BOX(header), cell(text(titles[i], english[i]), kWidths[i], true));
    gtk_widget_set_margin_start(header, 6);
    gtk_box_append(GTK_BOX(box), header);

    list_ = gtk_list_box_new();
    gtk_list_box_set_selection_mode(GTK_LIST_BOX(list_), GTK_SELECTION_SINGLE);
    g_signal_connect_swapped(list_, "row-selected", G_CALLBACK(+[](MainWindow* self) { self->updateButtons(); }),
                             this);
    GtkWidget* scroller = gtk_scrolled_window_new();
    gtk_scrolled_window_set_child(GTK_SCROLLED_WINDOW(scroller), list_);
    gtk_widget_set_vexpand(scroller, TRUE);
    gtk_box_append(GTK_BOX(box), scroller);

    GtkWidget* buttons = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 6);
    button(buttons, text("DesktopNewTask", "New task..."), &MainWindow::newTask);
    taskButtons_ = {button(buttons, text("DesktopBackUpNow", "Back up now"), &MainWindow::backUpNow),
                    button(buttons, text("DesktopStop", "Stop"), &MainWindow::stop),
                    button(buttons, text("DesktopRestore", "Restore..."), &MainWindow::openRestore),
                    button(buttons, text("DesktopEdit", "Edit..."), &MainWindow::edit),
                    button(buttons, text("DesktopDelete", "Delete"), &MainWindow::remove)};
    gtk_box_append(GTK_BOX(box), buttons);

    status_ = gtk_label_new("");
    gtk_label_set_xalign(GTK_LABEL(status_), 0);
    gtk_label_set_ellipsize(GTK_LABEL(status_), PANGO_ELLIPSIZE_END);
    gtk_box_append(GTK_BOX(box), status_);
    gtk_window_set_child(GTK_WINDOW(window_), box);

    // While a run or deletion works under this window, closing it cancels that work
    // first; the window closes when asked again once the work has ended.
    g_signal_connect(window_, "close-request", G_CALLBACK(+[](GtkWindow*, gpointer self) -> gboolean {
                         auto* w = static_cast<MainWindow*>(self);
                         if (!w->busy_)
                             return FALSE;
                         if (auto window = w->session_.host().backend()->modalWindow())
                             window->press(ViewButton::Cancel);
                         return TRUE;
                     }),
                     this);
    session_.setParent(GTK_WINDOW(window_));
    session_.setOnChange([this] { refreshAccount(); });
    // States and times change on the engine's threads; the window reads them each second.
    timer_ = g_timeout_add_seconds(1, +[](gpointer self) -> gboolean {
        static_cast<MainWindow*>(self)->refreshTasks();
        return G_SOURCE_CONTINUE;
    }, this);
    refreshAccount();
}

MainWindow::~MainWindow() {
    if (timer_)
        g_source_remove(timer_);
    session_.setOnChange(nullptr);
    restore_.reset();
    if (window_)
        gtk_window_destroy(GTK_WINDOW(window_));
}

GtkWidget* MainWindow::button(GtkWidget* box, const std::string& label, void (MainWindow::*action)()) {
    GtkWidget* b = gtk_button_new_with_label(label.c_str());
    g_object_set_data_full(G_OBJECT(b), "action", new Action{this, action},
                           +[](gpointer data) { delete static_cast<Action*>(data); });
    g_signal_connect(b, "clicked", G_CALLBACK(+[](GtkButton* pressed, gpointer) {
                         auto* a = static_cast<Action*>(g_object_get_data(G_OBJECT(pressed), "action"));
                         (a->window->*(a->run))();
                     }),
                     nullptr);
    gtk_box_append(GTK_BOX(box), b);
    return b;
}

void MainWindow::refreshAccount() {
    AccountBalance balance;
    int64_t code = TransferApiUtil::shareTransferApiUtil().GetAccountBalance(balance);
    std::string line = text("DesktopAccount", "{} on {}", session_.host().userName(), session_.host().serviceURL());
    if (code != ResultCode::Success) {
        line += " — " + text("DesktopSpaceUnknown", "space unknown: {}", TransferApiUtil::stringWithReturnCode(code));
    } else {
        uint64_t used = static_cast<uint64_t>(std::max<int64_t>(balance.fileSpaceUsed, 0));
        uint64_t max = static_cast<uint64_t>(std::max<int64_t>(balance.maxSpace, 0));
        line += " — " + (balance.maxSpace >= StoreQuota::Unknown
                             ? text("DesktopSpaceNoQuota", "{} used, free: unknown",
                                    GlobalFunction::stringFromFileSize(used))
                             : text("DesktopSpace", "{} used, {} free", GlobalFunction::stringFromFileSize(used),
                                    GlobalFunction::stringFromFileSize(max > used ? max - used : 0)));
    }
    gtk_label_set_text(GTK_LABEL(account_), line.c_str());
    refreshTasks();
}

void MainWindow::refreshTasks() {
    // Read in one piece under the manager's lock, as its other readers do: a run that
    // starts meanwhile would otherwise lend a row the fields it is writing.
    struct Shown {
        std::string name;
        bool running;
        std::vector<std::string> values;
    };
    std::vector<Shown> tasks;
    {
        CBackupManage& manager = session_.manager();
        std::lock_guard lock(manager.managerLock);
        auto list = manager.getTasksList();
        const auto& working = manager.pWorkingTask;
        // A new task's first run is the working task before it joins the list.
        if (working && std::none_of(list.begin(), list.end(), [&](const auto& t) { return t == working; }))
            list.push_back(working);
        for (const auto& task : list)
            tasks.push_back({task->name, task == working, rowValues(*task, task == working)});
    }
    bool same = tasks.size() == rows_.size();
    for (size_t i = 0; same && i < tasks.size(); ++i)
        same = tasks[i].name == rows_[i].name;
    if (!same) {
        std::string keep = selectedTask();
        for (auto& row : rows_)
            gtk_list_box_remove(GTK_LIST_BOX(list_), row.row);
        rows_.clear();
        for (const auto& task : tasks) {
            Row row;
            row.name = task.name;
            GtkWidget* line = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 12);
            gtk_widget_set_margin_top(line, 4);
            gtk_widget_set_margin_bottom(line, 4);
            for (int i = 0; i < 5; ++i) {
                row.labels.push_back(cell("", kWidths[i], i == 0));
                gtk_box_append(GTK_BOX(line), row.labels.back());
            }
            gtk_list_box_append(GTK_LIST_BOX(list_), line);
            row.row = GTK_WIDGET(gtk_list_box_get_row_at_index(GTK_LIST_BOX(list_), static_cast<int>(rows_.size())));
            rows_.push_back(std::move(row));
        }
        if (!keep.empty())
            selectTask(keep);
    }
    for (size_t i = 0; i < tasks.size(); ++i) {
        bool running = tasks[i].running;
        const auto& values = tasks[i].values;
        for (int c = 1; c < 5; ++c)
            if ((c == 1 || !running) && values[c] != gtk_label_get_text(GTK_LABEL(rows_[i].labels[c])))
                gtk_label_set_text(GTK_LABEL(rows_[i].labels[c]), values[c].c_str());
        if (rows_[i].name != gtk_label_get_text(GTK_LABEL(rows_[i].labels[0]))) {
            char* markup = g_markup_printf_escaped("<b>%s</b>", rows_[i].name.c_str());
            gtk_label_set_markup(GTK_LABEL(rows_[i].labels[0]), markup);
            g_free(markup);
        }
    }
    gtk_label_set_text(GTK_LABEL(status_), session_.status().c_str());
    updateButtons();
}

void MainWindow::updateButtons() {
    bool chosen = !selectedTask().empty();
    for (GtkWidget* b : taskButtons_)
        gtk_widget_set_sensitive(b, chosen && !busy_);
    // Stop works while the run's own window is up.
    if (busy_ && !taskButtons_.empty())
        gtk_widget_set_sensitive(taskButtons_[1], TRUE);
}

bool MainWindow::selectTask(const std::string& name) {
    for (const auto& row : rows_)
        if (row.name == name) {
            gtk_list_box_select_row(GTK_LIST_BOX(list_), GTK_LIST_BOX_ROW(row.row));
            return true;
        }
    return false;
}

std::string MainWindow::selectedTask() const {
    GtkListBoxRow* row = gtk_list_box_get_selected_row(GTK_LIST_BOX(list_));
    int index = row ? gtk_list_box_row_get_index(row) : -1;
    return index >= 0 && static_cast<size_t>(index) < rows_.size() ? rows_[index].name : "";
}

CBackupManage::TaskPtr MainWindow::selected() const {
    std::string name = selectedTask();
    if (name.empty())
        return nullptr;
    if (auto task = session_.manager().GetTaskByName(name))
        return task;
    return nullptr;
}

std::string MainWindow::rowText(const std::string& name) const {
    for (const auto& row : rows_)
        if (row.name == name) {
            std::string joined = row.name;
            for (size_t c = 1; c < row.labels.size(); ++c)
                joined += std::string(" | ") + gtk_label_get_text(GTK_LABEL(row.labels[c]));
            return joined;
        }
    return "";
}

std::string MainWindow::accountText() const {
    return gtk_label_get_text(GTK_LABEL(account_));
}

void MainWindow::backUpNow() {
    auto task = selected();
    if (!task || busy_)
        return;
    busy_ = true;
    updateButtons();
    // The progress window runs modally here; its loop keeps this window drawn.
    cli::BackupRunner runner(session_.host());
    cli::RunOutcome outcome = runner.runNow(task);
    busy_ = false;
    session_.setStatus(cli::BackupRunner::summary(task, outcome));
    refreshAccount();
}

void MainWindow::stop() {
    // The run's own window is up: its Cancel stops the run the way the user would.
    if (auto window = session_.host().backend()->modalWindow()) {
        window->press(ViewButton::Cancel);
        return;
    }
    auto task = selected();
    if (!task)
        return;
    CBackupManage& manager = session_.manager();
    std::string name = task->name;
    // The manager's stop waits for the run's end: not on this thread.
    session_.runInBackground([&manager, name] { manager.stopBackupTask(name); });
}

void MainWindow::openRestore() {
    auto task = selected();
    if (!task || busy_)
        return;
    restore_ = std::make_unique<RestoreWindow>(session_, task, GTK_WINDOW(window_));
}

void MainWindow::edit() {
    auto task = selected();
    if (!task || busy_)
        return;
    auto values = GtkDialogs::askFields(GTK_WINDOW(window_), text("DesktopEditTitle", "Edit \"{}\"", task->name),
                                        {text("DesktopEditName", "Name"), text("DesktopEditDescription", "Description")},
                                        {task->name, task->description});
    if (!values)
        return;
    std::string oldName = task->name;
    std::string newName = (*values)[0];
    if (newName != oldName) {
        if (!GlobalFunction::ValidNameFmt(newName) || session_.host().wizard().IsCreateTaskValid(newName) != 0) {
            GtkDialogs::message(GTK_WINDOW(window_), "Cirrovault",
                                text("DesktopNameRefused", "\"{}\" cannot be used as a task name here.", newName),
                                MessageboxStyle::Notice);
            return;
        }
        task->name = newName;
    }
    task->description = (*values)[1];
    if (task->localDirList.empty())
        task->loadFilePathListFromDB();
    task->addFileArray.clear();
    task->deleteFileArray.clear();
    task->backupFileArray = TaskFormat::sources(*task);
    int32_t code = session_.manager().editBackupTask(task, oldName);
    if (code != 0) {
        task->name = oldName;
        GtkDialogs::message(GTK_WINDOW(window_), "Cirrovault",
                            text("CliEditFailed", "the service refused the change of \"{}\": {}", oldName,
                                 TransferApiUtil::stringWithReturnCode(code)),
                            MessageboxStyle::Notice);
    }
    refreshTasks();
}

void MainWindow::remove() {
    auto task = selected();
    if (!task || busy_)
        return;
    int answer = GtkDialogs::message(
        GTK_WINDOW(window_), "Cirrovault",
        text("DesktopDeleteQuestion", "Delete the task \"{}\" and its files on the service?", task->name),
        MessageboxStyle::YesNo);
    if (answer != MessageboxAnswer::Yes)
        return;
    busy_ = true;
    updateButtons();
    // The deletion runs under the shared progress window, modal here.
    session_.manager().BatchDeleteTask(task->name, true);
    busy_ = false;
    refreshAccount();
}

void MainWindow::newTask() {
    if (busy_)
        return;
    busy_ = true;
    updateButtons();
    NewTaskWizard wizard(session_, GTK_WINDOW(window_));
    std::string made = wizard.run();
    busy_ = false;
    refreshAccount();
    if (!made.empty())
        selectTask(made);
}

} // namespace cirrovault::desktop

#pragma once

#include <gtk/gtk.h>

#include <memory>
#include <string>
#include <vector>

#include "DesktopSession.h"

namespace cirrovault::desktop {

class RestoreWindow;

// The application's window: the account and its space, every task with its state, last
// backup, next run and last error, the task buttons and the automatic-backups switch.
// Work that takes long runs under the controllers' windows (their modal loops keep this
// window drawn) or on the session's background thread. Main thread only.
class MainWindow {
public:
    MainWindow(DesktopSession& session, GtkApplication* app);
    ~MainWindow();
    MainWindow(const MainWindow&) = delete;
    MainWindow& operator=(const MainWindow&) = delete;

    GtkWindow* window() const { return GTK_WINDOW(window_); }
    // Reads the account's space again, then the tasks.
    void refreshAccount();
    // Shows the tasks as they are now.
    void refreshTasks();

    // The buttons' actions, on the selected task.
    bool selectTask(const std::string& name);
    std::string selectedTask() const;
    void backUpNow();
    void stop();
    void openRestore();
    void edit();
    void remove();
    void newTask();

    // What a task's row shows, its texts joined by " | " ("" when no such row).
    std::string rowText(const std::string& name) const;
    std::string accountText() const;
    RestoreWindow* restoreWindow() const { return restore_.get(); }

private:
    struct Row {
        std::string name;
        GtkWidget* row = nullptr;
        std::vector<GtkWidget*> labels; // name, state, last backup, next run, last error
    };

    GtkWidget* button(GtkWidget* box, const std::string& label, void (MainWindow::*action)());
    void updateButtons();
    CBackupManage::TaskPtr selected() const;

    DesktopSession& session_;
    GtkWidget* window_ = nullptr;
    GtkWidget* account_ = nullptr;
    GtkWidget* list_ = nullptr;
    GtkWidget* status_ = nullptr;
    GtkWidget* switch_ = nullptr;
    std::vector<GtkWidget*> taskButtons_;
    std::vector<Row> rows_;
    std::unique_ptr<RestoreWindow> restore_;
    guint timer_ = 0;
    bool busy_ = false; // a controller's window runs modally under one of our actions
};

} // namespace cirrovault::desktop

#pragma once

#include <gtk/gtk.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "DaemonGate.h"
#include "HostSession.h"
#include "Output.h"

namespace cirrovault::desktop {

class DesktopMessages;

// The desktop host's one session with the engine: the GTK back end and message boxes,
// the logon (asking for the password when none is kept), the manager's events brought
// to the GTK main thread, notifications at the end of runs, and automatic backups:
// the daemon's user unit where one is installed, else the scheduler in this process.
// Main thread only, except where said.
class DesktopSession {
public:
    // app: for notifications and the windows' parent; may be null (tests).
    DesktopSession(const cli::GlobalOptions& options, GApplication* app);
    ~DesktopSession();
    DesktopSession(const DesktopSession&) = delete;
    DesktopSession& operator=(const DesktopSession&) = delete;

    // Logs on; asks for the password when none is given or kept. Shows why it failed
    // and answers false.
    bool logon(GtkWindow* parent);
    cli::HostSession& host() { return *host_; }
    CBackupManage& manager() { return host_->manager(); }
    // Where the next dialog is shown over.
    void setParent(GtkWindow* parent);

    // Called on the main thread after each of the manager's events.
    void setOnChange(std::function<void()> onChange) { onChange_ = std::move(onChange); }
    // The last line worth showing in the status bar ("" when none).
    const std::string& status() const { return status_; }
    void setStatus(const std::string& line) { status_ = line; }

    // Automatic backups. With the daemon's unit installed the switch enables and starts
    // it (or stops and disables it) in the background; otherwise the scheduler runs
    // here while the window is open.
    bool unitInstalled() const { return unitInstalled_; }
    bool automatic() const { return automatic_; }
    void setAutomatic(bool on);

    // Runs work on the session's one background thread (after the previous work ended).
    void runInBackground(std::function<void()> work);
    // Runs on the main thread as soon as it is free; dropped when the session is gone.
    void post(std::function<void()> work);

private:
    void ended(const CBackupManage::TaskPtr& task);
    void keepInList(const CBackupManage::TaskPtr& task); // on the run's thread
    void notify(const std::string& id, const std::string& title, const std::string& body);
    static bool findUnit();

    cli::Output out_;
    std::shared_ptr<ViewBackend> backend_;
    std::shared_ptr<DesktopMessages> messages_;
    std::unique_ptr<cli::HostSession> host_;
    std::unique_ptr<cli::DaemonGate> gate_;
    GApplication* app_;
    std::function<void()> onChange_;
    std::string status_;
    size_t listener_ = 0;
    bool automatic_ = false;
    bool unitInstalled_ = false;
    bool schedulerStarted_ = false;
    std::thread background_; // the unit's systemctl, or the scheduler's stop
    // Cleared when the session goes, so that work posted from other threads is dropped.
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

} // namespace cirrovault::desktop

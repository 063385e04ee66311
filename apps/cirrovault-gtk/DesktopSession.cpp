#include "DesktopSession.h"

#include "DesktopMessages.h"
#include "platform/view/gtk/GtkScreenshot.h"
#include "platform/view/gtk/GtkViewBackend.h"
#include "GtkDialogs.h"
#include "platform/framework/NimboMessagebox.h"
#include "platform/os/FileSystem.h"
#include "platform/os/Host.h"
#include "platform/os/SystemLog.h"
#include "platform/os/UserUnits.h"
#include "platform/view/ViewBackend.h"
#include "ui/LoopDlgController.h"

namespace cirrovault::desktop {

using cli::text;

namespace {

constexpr const char* kUnitName = "cirrovault.service";

} // namespace

DesktopSession::DesktopSession(const cli::GlobalOptions& options, GApplication* app)
    : out_(false, true), app_(app) {
    backend_ = std::make_shared<GtkViewBackend>();
    host_ = std::make_unique<cli::HostSession>(options, out_, backend_);
    // After the session, which installs the terminal's boxes for the command line.
    messages_ = std::make_shared<DesktopMessages>();
    NimboMessagebox::setPresenter(messages_);
    std::weak_ptr<bool> alive = alive_;
    listener_ = host_->addListener([this, alive](const CBackupManage::TaskPtr& task, int32_t type) {
        if (type == refreshProgressBarDelegate)
            return; // the window reads the figures on its own clock
        if (type == endUploadTaskDelegate && task)
            keepInList(task);
        post([this, task, type] {
            if (type == endUploadTaskDelegate && task)
                ended(task);
            if (onChange_)
                onChange_();
        });
    });
    unitInstalled_ = findUnit();
}

DesktopSession::~DesktopSession() {
    *alive_ = false;
    host_->removeListener(listener_);
    if (background_.joinable())
        background_.join();
    try {
        host_->logoff();
    } catch (const std::exception&) {
        SystemLog::write("Error: cirrovault-gtk log-off at exit");
    }
    host_->manager().schedulerHooks = nullptr;
    host_.reset();
    NimboMessagebox::setPresenter(nullptr);
}

void DesktopSession::setParent(GtkWindow* parent) {
    messages_->setParent(parent);
}

void DesktopSession::post(std::function<void()> work) {
    struct Job {
        std::weak_ptr<bool> alive;
        std::function<void()> work;
    };
    auto* job = new Job{alive_, std::move(work)};
    g_main_context_invoke_full(
        nullptr, G_PRIORITY_DEFAULT,
        +[](gpointer data) -> gboolean {
            auto* j = static_cast<Job*>(data);
            if (auto alive = j->alive.lock(); alive && *alive)
                j->work();
            return G_SOURCE_REMOVE;
        },
        job, +[](gpointer data) { delete static_cast<Job*>(data); });
}

bool DesktopSession::logon(GtkWindow* parent) {
    setParent(parent);
    for (int attempt = 0; attempt < 3; ++attempt) {
        try {
            host_->logon(false);
            break;
        } catch (const cli::CliError& error) {
            // No kept account and no password given: ask here instead of at a terminal.
            bool noPassword = host_->lastLogonCode() == 0 && !host_->loggedOn();
            if (!noPassword || attempt == 2) {
                GtkDialogs::message(parent, "Cirrovault", error.what(), MessageboxStyle::Notice);
                return false;
            }
            auto password = GtkDialogs::askSecret(
                parent, text("DesktopLogonTitle", "Log on"),
                text("DesktopLogonQuestion", "Password of {}:", host_->userName()));
            if (!password)
                return false;
            host_->setPassword(*password);
        }
    }
    if (!host_->loggedOn())
        return false;
    // Shares the account with a daemon and the command line: the run lock is held only
    // while a task runs, and what they change is read between passes.
    gate_ = std::make_unique<cli::DaemonGate>(manager(), host_->accountFolder(), [this](const std::string& line) {
        post([this, line] {
            status_ = line;
            if (onChange_)
                onChange_();
        });
    });
    manager().schedulerHooks = gate_.get();
    return true;
}

bool DesktopSession::findUnit() {
    std::string data = Host::applicationSupportFolder();
    for (const std::string& folder : {UserUnits::folder(), data + "/systemd/user", std::string("/etc/systemd/user"),
                                      std::string("/usr/local/share/systemd/user"), std::string("/usr/lib/systemd/user")})
        if (FileSystem::exists(folder + "/" + kUnitName))
            return true;
    return false;
}

void DesktopSession::runInBackground(std::function<void()> work) {
    if (background_.joinable())
        background_.join();
    background_ = std::thread(std::move(work));
}

void DesktopSession::setAutomatic(bool on) {
    if (on == automatic_)
        return;
    automatic_ = on;
    if (unitInstalled_) {
        runInBackground([this, on] {
            bool done = on ? UserUnits::systemctl({"enable", "--now", kUnitName})
                           : UserUnits::systemctl({"disable", "--now", kUnitName});
            post([this, on, done] {
                status_ = done ? (on ? text("DesktopDaemonStarted", "The background service runs the scheduled tasks.")
                                     : text("DesktopDaemonStopped", "The background service is stopped."))
                               : text("DesktopDaemonFailed", "The user service manager did not answer ({}).", kUnitName);
                if (onChange_)
                    onChange_();
            });
        });
        return;
    }
    CBackupManage& m = manager();
    if (on) {
        if (background_.joinable())
            background_.join(); // a stop still under way
        m.bExit = false;
        if (!schedulerStarted_)
            host_->startScheduler();
        else
            m.doScheduleTaskThreadMethod();
        schedulerStarted_ = true;
        status_ = text("DesktopSchedulerOn", "Scheduled tasks run while this window is open.");
        return;
    }
    // The scheduler sees the flag at its next pass (about two seconds): wait off the
    // main thread, then let a later start go on. Queued tasks stay queued, as after the
    // engine's own stop of the scheduler: they run once it is back on.
    m.bExit = true;
    runInBackground([&m] {
        if (auto scheduler = m.pScheduleThread)
            scheduler->join();
    });
    status_ = text("DesktopSchedulerOff", "Scheduled tasks do not run automatically.");
}

void DesktopSession::keepInList(const CBackupManage::TaskPtr& task) {
    // A new task leaves the list of tasks while its first run runs; this process goes
    // on showing it, so it comes back once the run is over.
    CBackupManage& m = manager();
    std::lock_guard lock(m.managerLock);
    if (!task->bDeleting && m.pWorkingTask != task && !m.GetTaskByName(task->name))
        m.taskList.push_back(task);
}

void DesktopSession::ended(const CBackupManage::TaskPtr& task) {
    int32_t state = task->mTaskState;
    if (state == CBackupTask::StateSucceeded)
        notify(task->name, text("DesktopBackedUp", "Backed up \"{}\"", task->name), "");
    else if (state == CBackupTask::StateFailed)
        notify(task->name, text("DesktopBackupFailed", "The backup of \"{}\" failed", task->name),
               task->strErrLog.value_or(""));
}

void DesktopSession::notify(const std::string& id, const std::string& title, const std::string& body) {
    status_ = body.empty() ? title : title + ": " + body;
    if (!app_)
        return;
    GNotification* notification = g_notification_new(title.c_str());
    if (!body.empty())
        g_notification_set_body(notification, body.c_str());
    g_application_send_notification(app_, ("run-" + id).c_str(), notification);
    g_object_unref(notification);
}

} // namespace cirrovault::desktop

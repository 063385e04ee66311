#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Output.h"
#include "RunLock.h"
#include "engine/manager/CBackupManage.h"
#include "engine/manager/StowlineBackupManageDelegate.h"
#include "platform/view/ViewBackend.h"
#include "ui/CreateViewXibController.h"

namespace cirrovault::cli {

// Options that every command takes.
struct GlobalOptions {
    std::string service; // service URL for this run ("" = the setting, else the local store)
    std::string user;
    bool json = false;
    bool verbose = false;
    // Given by a host that asked for it itself (the desktop's prompt); "" = the usual
    // sources (environment, kept account, terminal).
    std::string password;
};

// One host application around one CBackupManage: the dialog back end (terminal at a
// terminal, headless otherwise), the message boxes, the logon and log-off, the
// account's run lock and the manager's events.
class HostSession : public StowlineBackupManageDelegate {
public:
    using TaskPtr = CBackupManage::TaskPtr;
    // Receives the manager's events on the thread that raised them.
    using Listener = std::function<void(const TaskPtr& task, int32_t type)>;

    // A host that draws its own windows (the desktop) passes its back end; otherwise
    // the terminal's at a terminal, else the headless one.
    HostSession(const GlobalOptions& options, const Output& out, std::shared_ptr<ViewBackend> backend = nullptr);
    ~HostSession() override; // logs off when still logged on
    HostSession(const HostSession&) = delete;
    HostSession& operator=(const HostSession&) = delete;

    // Opens the service and logs on through the manager, which loads the task list.
    // With exclusive, also takes the account's run lock. Throws CliError.
    void logon(bool exclusive);
    // The password for the next logon, asked by the host itself.
    void setPassword(const std::string& password) { options_.password = password; }
    // No person answers the dialogs even at a terminal (the daemon).
    void setUnattended() { unattended_ = true; }
    // The result code of the last logon (0 when it succeeded).
    int64_t lastLogonCode() const { return lastLogonCode_; }
    // Ends the session. After the scheduler ran this is the manager's own log-off
    // (scheduler first, then the running task, then the service); a command that ran no
    // scheduler ends its session directly, without the log-off's wait dialog.
    void logoff();
    bool loggedOn() const { return loggedOn_; }

    CBackupManage& manager() { return *wizard_->pBackupManage; }
    // The new-task wizard; its manager is the one this session drives.
    CreateViewXibController& wizard() { return *wizard_; }
    // The text of the last message box shown (the reason a check refused); taking it
    // means the command reports it, so it is not printed again at the end.
    std::string lastMessage() const;
    // Message boxes are printed as they come (the daemon), not kept for the end.
    void showMessagesAtOnce();
    void clearLastMessage();
    const std::shared_ptr<ViewBackend>& backend() const { return backend_; }
    bool interactive() const { return interactive_; }
    const Output& out() const { return out_; }
    const std::string& userName() const { return userName_; }
    const std::string& password() const { return password_; }
    const std::string& serviceURL() const { return serviceURL_; }
    std::string customerID() const;
    // The account's data folder (event log, run lock).
    std::string accountFolder() const;

    // Takes one of the account's locks (RunLock's files), or a CliError (busy) that says
    // who holds it. The run lock is waited for a moment: the daemon takes it briefly
    // between passes when the task list changed.
    std::unique_ptr<RunLock> lockAccount(const char* file);
    // The run lock for the rest of the session, as logon(true) takes it.
    void lockRuns() { lock_ = lockAccount(RunLock::kRunFile); }

    // The task of that name, or a CliError that says there is none.
    TaskPtr task(const std::string& name);
    // Starts the manager's scheduler thread (the daemon).
    void startScheduler();
    bool schedulerStarted() const { return schedulerStarted_; }

    // Adds a receiver of the manager's events; the answer removes it again.
    size_t addListener(Listener listener);
    void removeListener(size_t id);
    bool StowlineBackupManageDelegateFun(CBackupManage* manager, const TaskPtr& taskInfo,
                                         int32_t delegateType) override;

private:
    int64_t logonWatchingSignals();

    GlobalOptions options_;
    const Output& out_;
    bool interactive_ = false;
    std::shared_ptr<ViewBackend> backend_;
    std::unique_ptr<CreateViewXibController> wizard_;
    std::shared_ptr<class RecordingMessagebox> messages_;
    std::unique_ptr<RunLock> lock_;
    bool loggedOn_ = false;
    int64_t lastLogonCode_ = 0;
    bool unattended_ = false;
    std::atomic<bool> schedulerStarted_ = false; // read by the daemon's control threads
    std::string userName_;
    std::string password_; // in memory only
    std::string serviceURL_;
    std::mutex listenerMutex_;
    std::vector<std::pair<size_t, Listener>> listeners_; // guarded by listenerMutex_
    size_t nextListener_ = 1;                            // guarded by listenerMutex_
};

} // namespace cirrovault::cli

#include "HostSession.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "Credentials.h"
#include "Signals.h"
#include "platform/framework/NimboMessagebox.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/TerminalMessagebox.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/framework/UserSettingMan.h"
#include "platform/os/SystemLog.h"
#include "platform/view/ViewLayout.h"
#include "platform/view/headless/HeadlessViewBackend.h"
#include "platform/view/terminal/TerminalConsole.h"
#include "platform/view/terminal/TerminalViewBackend.h"
#include "support/CErrorLog.h"
#include "ui/LoopDlgController.h"
#include "ui/ProgressBarController.h"

namespace cirrovault::cli {

// Message boxes as the terminal shows them, remembering the last text so that a
// command can repeat why the engine refused in its own error.
class RecordingMessagebox : public NimboMessagebox::Presenter {
public:
    explicit RecordingMessagebox(bool interactive) : interactive_(interactive) {}

    int showMessage(const std::string& title, const std::string& informativeText,
                    int messageboxStyle) override {
        std::string shown = informativeText.empty() ? title : informativeText;
        {
            std::lock_guard lock(mutex_);
            last_ = shown;
            // Without a terminal a notice is kept back: the command's own error usually
            // repeats it, and what is left is printed once at the end.
            if (!interactive_ && !immediate_ && messageboxStyle == MessageboxStyle::Notice) {
                pending_.push_back(shown);
                return MessageboxAnswer::Ok;
            }
        }
        return terminal_.showMessage(title, informativeText, messageboxStyle);
    }
    int showStorageOrder(const std::string& title, const std::string& message, bool& checkBox,
                         int dialogStyle) override {
        {
            std::lock_guard lock(mutex_);
            last_ = message;
        }
        return terminal_.showStorageOrder(title, message, checkBox, dialogStyle);
    }
    std::string chooseFolder(const std::string& title) override { return terminal_.chooseFolder(title); }
    std::string take() {
        std::lock_guard lock(mutex_);
        std::string last = last_;
        if (!pending_.empty() && pending_.back() == last)
            pending_.pop_back();
        last_.clear();
        return last;
    }
    void clear() {
        std::lock_guard lock(mutex_);
        last_.clear();
    }
    void setImmediate(bool immediate) {
        std::lock_guard lock(mutex_);
        immediate_ = immediate;
    }
    void flush() {
        std::vector<std::string> pending;
        {
            std::lock_guard lock(mutex_);
            pending.swap(pending_);
        }
        for (const auto& text : pending)
            std::fprintf(stderr, "cirrovault: %s\n", text.c_str());
    }

private:
    TerminalMessagebox terminal_;
    const bool interactive_;
    mutable std::mutex mutex_;
    bool immediate_ = false;           // guarded by mutex_
    std::string last_;                 // guarded by mutex_
    std::vector<std::string> pending_; // guarded by mutex_
};

HostSession::HostSession(const GlobalOptions& options, const Output& out, std::shared_ptr<ViewBackend> backend)
    : options_(options), out_(out) {
    SystemLog::setVerbose(options.verbose);
    interactive_ = !backend && TerminalConsole::isTty(0) && TerminalConsole::isTty(2);
    if (backend)
        backend_ = std::move(backend);
    else if (interactive_)
        backend_ = std::make_shared<TerminalViewBackend>();
    else
        backend_ = std::make_shared<HeadlessViewBackend>();
    ViewBackend::setShared(backend_);
    LoopDlgController::installFactory(backend_);
    // Task and version deletions run under the shared progress window.
    ProgressBarController::installProgressModeHost();
    // At a terminal the boxes are prompts; without one they are printed and answered
    // with answers that never destroy anything.
    messages_ = std::make_shared<RecordingMessagebox>(interactive_);
    NimboMessagebox::setPresenter(messages_);
    wizard_ = std::make_unique<CreateViewXibController>(backend_);
    manager().SetDelegate(this);
}

HostSession::~HostSession() {
    try {
        logoff();
    } catch (const std::exception&) {
        SystemLog::write("Error: cirrovault log-off at exit");
    }
    messages_->flush();
    wizard_.reset();
    CLoopItem::setFactory(nullptr);
    NimboMessagebox::setPresenter(nullptr);
}

std::string HostSession::lastMessage() const {
    return messages_->take();
}

void HostSession::showMessagesAtOnce() {
    messages_->flush();
    messages_->setImmediate(true);
}

void HostSession::clearLastMessage() {
    messages_->clear();
}

std::string HostSession::customerID() const {
    return TransferApiUtil::shareTransferApiUtil().customerID();
}

std::string HostSession::accountFolder() const {
    return CErrorLog::createErrorLogFile();
}

void HostSession::logon(bool exclusive) {
    TransferApiUtil& api = TransferApiUtil::shareTransferApiUtil();
    serviceURL_ = options_.service.empty() ? TransferApiUtil::defaultServiceURL() : options_.service;
    int64_t code = api.OpenService(serviceURL_);
    lastLogonCode_ = code;
    if (code != ResultCode::Success)
        throw CliError(Exit::Logon, text("CliNoService", "cannot open the service {}: {}", serviceURL_,
                                         TransferApiUtil::stringWithReturnCode(code)));
    userName_ = Credentials::userName(options_.user);
    auto password = options_.password.empty() ? Credentials::password(userName_, interactive_)
                                              : std::optional<std::string>(options_.password);
    if (!password)
        throw CliError(Exit::Logon,
                       text("CliNoPassword",
                            "no password for {}: set CIRROVAULT_PASSWORD, or run `cirrovault logon` "
                            "at a terminal to keep it for later commands",
                            userName_));
    password_ = *password;
    // Nobody answers a script's dialogs: a service that cannot be reached ends the logon
    // after its attempts rather than in a count-down only a person could end.
    manager().bUnattended = unattended_ || !interactive_;
    code = logonWatchingSignals();
    lastLogonCode_ = code;
    if (code == ResultCode::StoreDamaged)
        throw CliError(Exit::Damaged,
                       text("CliStoreDamaged",
                            "the records of the store {} are damaged or missing; they are left as they "
                            "are and your backups are still there. `cirrovault repair` rebuilds the "
                            "records from the stored files.",
                            serviceURL_));
    if (code != ResultCode::Success) {
        std::string why = code == ResultCode::Cancelled
                              ? text("CliLogonCancelled", "cancelled")
                          : code == ResultCode::Failure
                              ? text("CliLogonUnreachable", "the service {} cannot be reached", serviceURL_)
                              : TransferApiUtil::stringWithReturnCode(code);
        throw CliError(code == ResultCode::Cancelled ? Exit::Cancelled : Exit::Logon,
                       text("CliLogonRefused", "logon of {} refused: {}", userName_, why));
    }
    loggedOn_ = true;
    if (!manager().identityProblem.empty())
        std::fprintf(stderr, "cirrovault: %s\n", manager().identityProblem.c_str());
    UserSettingMan::SetUserInfo(userName_, api.customerID());
    if (exclusive)
        lockRuns();
}

std::unique_ptr<RunLock> HostSession::lockAccount(const char* file) {
    constexpr int kBriefTries = 40; // 2 seconds in steps of 50 ms
    bool brief = std::string(file) == RunLock::kRunFile;
    pid_t holder = 0;
    for (int attempt = 0;; ++attempt) {
        if (auto lock = RunLock::acquire(accountFolder(), &holder, file))
            return lock;
        if (!brief || attempt + 1 >= kBriefTries || Signals::pending())
            break;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    std::string who = holder > 0 ? text("CliLockPid", "process {}", holder)
                                 : text("CliLockUnknown", "another process");
    throw CliError(Exit::Busy,
                   text("CliBusy",
                        "another cirrovault ({}) is running the tasks of {} now. Wait for it to "
                        "finish, or stop it (`systemctl --user stop cirrovault` for the daemon, "
                        "else `kill {}`) and try again.",
                        who, userName_, holder > 0 ? std::to_string(holder) : "<pid>"));
}

// SIGTERM and SIGINT during the logon press Cancel on its wait dialog, which the logon
// sees within a second (between attempts and at every step of a count-down).
int64_t HostSession::logonWatchingSignals() {
    std::atomic<bool> done{false};
    std::thread watcher([&] {
        bool pressed = false;
        while (!done) {
            if (!pressed && Signals::pending()) {
                if (auto window = backend_->modalWindow()) {
                    window->press(ViewButton::Cancel);
                    pressed = true;
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    });
    int64_t code = ResultCode::Failure;
    try {
        code = manager().Mylogon(userName_, password_);
    } catch (...) {
        done = true;
        watcher.join();
        throw;
    }
    done = true;
    watcher.join();
    return code;
}

void HostSession::logoff() {
    if (!loggedOn_)
        return;
    loggedOn_ = false;
    if (schedulerStarted_) {
        manager().logOff(false);
    } else {
        manager().bLogOff = true;
        manager().bExit = true;
        bool working = false;
        {
            std::lock_guard guard(manager().managerLock);
            working = manager().pWorkingTask != nullptr;
        }
        if (working)
            manager().endBackpTask();
        TransferApiUtil::shareTransferApiUtil().Logoff();
    }
    lock_.reset();
}

HostSession::TaskPtr HostSession::task(const std::string& name) {
    if (auto found = manager().GetTaskByName(name))
        return found;
    std::string names;
    for (const auto& t : manager().getTasksList())
        names += (names.empty() ? "" : ", ") + t->name;
    throw CliError(Exit::Usage, names.empty()
                                    ? text("CliNoTasks", "no task named \"{}\": this account has no tasks yet "
                                                         "(make one with `cirrovault task new`)", name)
                                    : text("CliUnknownTask", "no task named \"{}\" (tasks: {})", name, names));
}

void HostSession::startScheduler() {
    schedulerStarted_ = true;
    manager().doScheduleTaskThreadMethod();
}

size_t HostSession::addListener(Listener listener) {
    std::lock_guard lock(listenerMutex_);
    listeners_.emplace_back(nextListener_, std::move(listener));
    return nextListener_++;
}

void HostSession::removeListener(size_t id) {
    std::lock_guard lock(listenerMutex_);
    std::erase_if(listeners_, [id](const auto& entry) { return entry.first == id; });
}

bool HostSession::StowlineBackupManageDelegateFun(CBackupManage*, const TaskPtr& taskInfo,
                                                  int32_t delegateType) {
    std::vector<std::pair<size_t, Listener>> listeners;
    {
        std::lock_guard lock(listenerMutex_);
        listeners = listeners_;
    }
    for (const auto& [id, listener] : listeners)
        listener(taskInfo, delegateType);
    return true;
}

} // namespace cirrovault::cli

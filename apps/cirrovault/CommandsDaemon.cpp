// daemon: the scheduler in the foreground until SIGTERM or SIGINT.
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <memory>
#include <unistd.h>

#include "Commands.h"
#include "DaemonControl.h"
#include "DaemonGate.h"
#include "Signals.h"
#include "TaskFormat.h"
#include "platform/os/ResultCodes.h"
#include "platform/os/ServiceNotify.h"
#include "platform/os/SystemLog.h"
#include "support/OptionsMan.h"

namespace cirrovault::cli {

namespace {

struct DaemonArgs {
    bool now = false;
};

// Waits like Signals::wait, feeding the service manager's watchdog meanwhile.
void idle(double seconds) {
    double step = ServiceNotify::aliveIntervalSeconds();
    for (double left = seconds; left > 0 && !Signals::pending(); left -= step) {
        ServiceNotify::alive();
        Signals::wait(step > 0 ? std::min(step, left) : left);
        if (step <= 0)
            break;
    }
}

void say(const std::string& line) {
    // One line per event on stdout: the journal (or a terminal) shows them as they come.
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

// The service may be away when the daemon starts (a computer up before its network, a
// server being restarted): the daemon keeps trying, waiting longer after each failure,
// and says so each time. A refused password or a bad certificate will not mend itself,
// so those end it. False when a stop request came first.
bool logonWithBackoff(HostSession& session) {
    constexpr double kFirstPause = 30, kLongestPause = 30 * 60;
    for (double pause = kFirstPause;; pause = std::min(pause * 2, kLongestPause)) {
        try {
            // The run lock is taken around each run only, so that commands work beside
            // an idle daemon; the daemon lock keeps the account to one daemon.
            session.logon(false);
            return true;
        } catch (const CliError& e) {
            if (session.lastLogonCode() != ResultCode::Failure || Signals::pending())
                throw;
            std::string line = text("CliDaemonLogonRetry", "{}; trying again in {} seconds", e.what(),
                                    static_cast<int>(pause));
            SystemLog::write("cirrovault daemon: " + line);
            say(line);
        }
        if (Signals::wait(pause))
            return false;
    }
}

int daemonCommand(const DaemonArgs& args, const GlobalOptions& global, const Output& out) {
    Signals::install();
    // Outlives the session, whose log-off still reports the end of a running task to it.
    std::unique_ptr<DaemonGate> gate;
    HostSession session(global, out);
    session.showMessagesAtOnce();
    session.setUnattended();
    if (!logonWithBackoff(session))
        return Exit::Ok; // stopped before the service could be reached
    std::unique_ptr<RunLock> daemonLock = session.lockAccount(RunLock::kDaemonFile);
    gate = std::make_unique<DaemonGate>(session.manager(), session.accountFolder(), say);
    session.manager().schedulerHooks = gate.get();
    session.addListener([](const HostSession::TaskPtr& task, int32_t type) {
        if (!task)
            return;
        switch (type) {
        case 7: say(text("CliDaemonQueued", "queued \"{}\"", task->name)); break;
        case 1: say(text("CliDaemonStarted", "started \"{}\"", task->name)); break;
        case 2:
            say(text("CliDaemonEnded", "ended \"{}\": {}{}", task->name, TaskFormat::stateName(task->mTaskState),
                     task->strErrLog && !task->strErrLog->empty() ? " (" + *task->strErrLog + ")" : ""));
            break;
        default: break;
        }
    });
    OptionsMan::LoadOptions();
    say(text("CliDaemonUp", "cirrovault daemon {} logged on as {} with {}", getpid(), session.userName(),
             TaskFormat::countText(session.manager().getTasksList().size(), "task", "tasks")));
    // Open at once, so that a backup asked for during the start delay below is the
    // daemon's run, not a second process beside it.
    auto control = std::make_unique<DaemonControl>(session);
    ServiceNotify::ready();
    // The options may ask for the scheduled backups to wait a few minutes after logon.
    if (!args.now && OptionsMan::IsAutoStartScheduleAfterMinutes() && OptionsMan::intervalMinutes() > 0) {
        uint32_t minutes = OptionsMan::intervalMinutes();
        say(text("CliDaemonDelay", "scheduled backups start in {} minute(s)", minutes));
        idle(minutes * 60.0);
    }
    if (!Signals::pending()) {
        session.startScheduler();
        say(text("CliDaemonScheduling", "scheduler running; stop with SIGTERM or Ctrl-C"));
        while (!Signals::pending())
            idle(3600);
    }
    ServiceNotify::stopping();
    say(text("CliDaemonStopping", "stopping: the scheduler first, then the running task, then the session"));
    control->stop();
    session.logoff();
    say(text("CliDaemonStopped", "stopped"));
    return Exit::Ok;
}

} // namespace

void addDaemonCommands(CLI::App& app, Runner& run) {
    auto args = std::make_shared<DaemonArgs>();
    auto* daemon = app.add_subcommand(
        "daemon", "log on with the kept account and run the scheduled tasks until SIGTERM or Ctrl-C "
                  "(resources/cirrovault.service runs it as a systemd user service); `backup NAME` beside it "
                  "hands the task to it over its control socket and follows the run");
    daemon->footer(
        "Control socket: $XDG_RUNTIME_DIR/cirrovault/ (else /tmp/cirrovault-UID/), one per account, mode 0600. "
        "One request a line, one reply a line (\\n and \\\\ escaped): `ping` answers `pong PID`; "
        "`backup NAME` queues the task and answers `line TEXT` for the user, `progress SENT TOTAL` at least "
        "every second, `file PATH` for each file sent, `result JSON` when it succeeded and last `done EXIT TEXT`; "
        "a later `stop` cancels it. A client that goes away leaves the run going.");
    daemon->add_flag("--now", args->now, "start the scheduler at once, not after the options' minutes");
    daemon->callback([&run, args] { run = [args](auto& g, auto& o) { return daemonCommand(*args, g, o); }; });
}

} // namespace cirrovault::cli

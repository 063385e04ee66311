#include "DaemonControl.h"

#include <chrono>
#include <cstdio>
#include <optional>
#include <unistd.h>

#include "BackupRunner.h"
#include "platform/framework/TrueProgressCallback.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"

namespace cirrovault::cli {

namespace {

constexpr size_t kMostPeers = 8;
constexpr double kPoll = 0.2;          // seconds between looks at a followed task
constexpr double kRequestWait = 5;     // for the request line of a new connection
constexpr double kLostEndSeconds = 10; // a run gone from the manager without its end notice
constexpr double kNewTaskWait = 10;    // for the next pass to read a task list that changed

using SteadyClock = std::chrono::steady_clock;

double secondsSince(SteadyClock::time_point since) {
    return std::chrono::duration<double>(SteadyClock::now() - since).count();
}

std::string doneLine(int exitCode, const std::string& text) {
    return "done " + std::to_string(exitCode) + " " + DaemonControl::escape(text);
}

} // namespace

DaemonControl::DaemonControl(HostSession& session)
    : session_(session), path_(socketPath(session.accountFolder())) {
    if (path_.empty())
        return;
    listener_ = UnixSocket::listen(path_);
    if (!listener_.valid())
        return;
    listenerId_ = session_.addListener([this](const HostSession::TaskPtr& task, int32_t type) { onEvent(task, type); });
    acceptor_ = std::thread([this] { acceptLoop(); });
}

DaemonControl::~DaemonControl() { stop(); }

void DaemonControl::stop() {
    if (stopping_.exchange(true))
        return;
    changed_.notify_all();
    if (acceptor_.joinable())
        acceptor_.join();
    for (Peer& peer : peers_)
        peer.thread.join();
    peers_.clear();
    if (listener_.valid()) {
        session_.removeListener(listenerId_);
        listener_ = UnixSocket();
        FileSystem::removeItem(path_);
    }
}

std::string DaemonControl::socketPath(const std::string& accountFolder) {
    std::string folder = UnixSocket::runtimeFolder();
    if (folder.empty() || accountFolder.empty())
        return "";
    // The data folder tells accounts (and test homes) apart; its name is too long for a socket.
    uint64_t hash = 1469598103934665603ull;
    for (unsigned char c : accountFolder)
        hash = (hash ^ c) * 1099511628211ull;
    char name[32];
    std::snprintf(name, sizeof name, "%016llx.sock", static_cast<unsigned long long>(hash));
    return folder + "/" + name;
}

std::string DaemonControl::escape(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '\\')
            out += "\\\\";
        else if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out;
}

std::string DaemonControl::unescape(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 1 < text.size()) {
            ++i;
            out += text[i] == 'n' ? '\n' : text[i];
        } else {
            out += text[i];
        }
    }
    return out;
}

void DaemonControl::acceptLoop() {
    while (!stopping_) {
        UnixSocket peer = listener_.accept(kPoll);
        std::erase_if(peers_, [](Peer& p) {
            if (!p.done->load())
                return false;
            p.thread.join();
            return true;
        });
        if (!peer.valid())
            continue;
        if (peers_.size() >= kMostPeers) {
            peer.sendLine(doneLine(Exit::Busy, text("CliDaemonTooMany", "the daemon is answering too many commands; try again")));
            continue;
        }
        auto done = std::make_shared<std::atomic<bool>>(false);
        peers_.push_back({std::thread([this, done, p = std::move(peer)]() mutable {
                              try {
                                  serve(std::move(p));
                              } catch (const std::exception&) {
                                  SystemLog::write("Error: cirrovault daemon: control request");
                              }
                              *done = true;
                          }),
                          done});
    }
}

void DaemonControl::serve(UnixSocket peer) {
    std::string request;
    if (peer.readLine(request, kRequestWait) != UnixSocket::Read::Line)
        return;
    if (request == "ping")
        peer.sendLine("pong " + std::to_string(getpid()));
    else if (request.rfind("backup ", 0) == 0)
        follow(peer, unescape(request.substr(7)));
    else
        peer.sendLine(doneLine(Exit::Usage, text("CliDaemonUnknownRequest", "unknown request: {}", request)));
}

void DaemonControl::follow(UnixSocket& peer, const std::string& name) {
    CBackupManage& manager = session_.manager();
    HostSession::TaskPtr task = manager.GetTaskByName(name);
    // The command found the task: one made a moment ago reaches the daemon with its next
    // pass, which reads the changed task list when no run is under way.
    for (auto since = SteadyClock::now(); !task && !stopping_ && secondsSince(since) < kNewTaskWait;) {
        std::string ignored;
        if (peer.readLine(ignored, kPoll) == UnixSocket::Read::Closed || !peer.sendLine("progress 0 0"))
            return;
        task = manager.GetTaskByName(name);
    }
    if (!task) {
        std::lock_guard guard(manager.managerLock);
        if (manager.pWorkingTask)
            peer.sendLine(doneLine(Exit::Busy, text("CliDaemonListBehind",
                                                    "the daemon reads the task list with \"{}\" once its run of \"{}\" has ended; try again then",
                                                    name, manager.pWorkingTask->name)));
        else
            peer.sendLine(doneLine(Exit::Usage, text("CliUnknownTaskShort", "no task named \"{}\"", name)));
        return;
    }
    if (task->bMigrateTask) {
        peer.sendLine(doneLine(Exit::Usage, text("CliOtherComputer",
                                                 "\"{}\" was made on {}: move it here first with `cirrovault task migrate {} --to DIR`",
                                                 name, task->mPCName, name)));
        return;
    }
    auto working = [&] { return manager.pWorkingTask && manager.pWorkingTask->name == name; };
    bool started = false;
    uint64_t startedBefore = 0, endedBase = 0;
    {
        // Events of the manager come under its lock, so what it says here and what the
        // notices said agree.
        std::lock_guard guard(manager.managerLock);
        {
            std::lock_guard lock(mutex_);
            startedBefore = runs_[name].started;
            endedBase = runs_[name].ended;
        }
        started = working();
        if (!started && !manager.findTaskFromWaitingList(task)) {
            task->bHaveErr = false; // the scheduler drops a queued task still marked failed
            // Before the scheduler's start delay has passed nobody takes the queue's head:
            // the run starts here, or waits behind the one under way.
            if (session_.schedulerStarted())
                manager.AddTaskToWaitList(task, false);
            else
                manager.StartBackupByUser(name, false);
            started = working();
        }
    }
    peer.sendLine("line " + escape(started ? text("CliDaemonFollowing", "\"{}\" is running in the daemon (process {}); following it", name, getpid())
                                           : text("CliDaemonQueuedFor", "\"{}\" is queued in the daemon (process {}); it starts when the daemon is free", name, getpid())));
    auto lastBeat = SteadyClock::now() - std::chrono::seconds(1);
    std::optional<SteadyClock::time_point> goneSince;
    std::string lastFile;
    for (;;) {
        {
            std::unique_lock lock(mutex_);
            changed_.wait_for(lock, std::chrono::duration<double>(kPoll));
        }
        if (stopping_) {
            peer.sendLine(doneLine(Exit::Cancelled, text("CliDaemonStoppedRun",
                                                         "the daemon stopped before the backup of \"{}\" ended; run it again to go on where it stopped",
                                                         name)));
            return;
        }
        std::string request;
        UnixSocket::Read got = peer.readLine(request, 0);
        if (got == UnixSocket::Read::Closed)
            return; // the command went away; the run goes on
        bool stopAsked = got == UnixSocket::Read::Line && request == "stop";
        bool waiting = false, running = false;
        Runs runs;
        {
            std::lock_guard guard(manager.managerLock);
            running = working();
            task = manager.GetTaskByName(name); // a reload may have replaced it
            waiting = task && manager.findTaskFromWaitingList(task);
            if (stopAsked && waiting)
                manager.RemoveTaskFromWaitlist(task);
            std::lock_guard lock(mutex_);
            runs = runs_[name];
        }
        if (!started && runs.started > startedBefore) {
            started = true;
            endedBase = runs.endedAtStart;
        }
        if (started && runs.ended > endedBase) {
            if (!runs.result.empty())
                peer.sendLine("result " + runs.result);
            peer.sendLine(doneLine(runs.exitCode, runs.summary));
            return;
        }
        if (stopAsked && waiting) {
            peer.sendLine(doneLine(Exit::Cancelled, text("CliDaemonUnqueued", "\"{}\" was taken off the daemon's queue", name)));
            return;
        }
        if (stopAsked && running && task) {
            peer.sendLine("line " + escape(text("CliStopping", "Stopping...")));
            task->CancelBackup(); // the run ends at its next check; its notice follows
        }
        if (!started && !waiting && !running) {
            peer.sendLine(doneLine(Exit::Failed, text("CliDaemonDropped", "the daemon did not start \"{}\"; see `cirrovault log`", name)));
            return;
        }
        if (started && !running) {
            // Between the end of the run and its last notice; a run ended by a log-off sends none.
            goneSince = goneSince.value_or(SteadyClock::now());
            if (secondsSince(*goneSince) > kLostEndSeconds) {
                peer.sendLine(doneLine(Exit::Failed, text("CliDaemonLostEnd", "the run of \"{}\" ended without its result; see `cirrovault log`", name)));
                return;
            }
        }
        if (started && !runs.file.empty() && runs.file != lastFile) {
            lastFile = runs.file;
            if (!peer.sendLine("file " + escape(lastFile)))
                return;
        }
        if (secondsSince(lastBeat) >= 1) {
            lastBeat = SteadyClock::now();
            std::shared_ptr<TrueProgressCallback> progress = started && task ? task->GetProgress() : nullptr;
            std::string beat = "progress " + std::to_string(progress ? progress->bytesDone() : 0) + " " +
                               std::to_string(progress ? progress->totalSize() : 0);
            if (!peer.sendLine(beat))
                return;
        }
    }
}

void DaemonControl::onEvent(const HostSession::TaskPtr& task, int32_t type) {
    if (!task)
        return;
    if (type == refreshProgressBarDelegate) {
        if (!task->bInitUIPrgBar || task->strWorkingFile.empty())
            return;
        std::lock_guard lock(mutex_);
        runs_[task->name].file = task->strWorkingFile;
        return;
    }
    if (type != beginUploadTaskDelegate && type != endUploadTaskDelegate)
        return;
    // Read here, on the run's own thread, which owns the fields of its outcome.
    std::string summary, result;
    int code = 0;
    if (type == endUploadTaskDelegate) {
        RunOutcome outcome = BackupRunner::outcomeOf(task);
        code = BackupRunner::exitCode(outcome);
        summary = BackupRunner::summary(task, outcome);
        if (code == Exit::Ok)
            result = BackupRunner::resultDocument(task, outcome).dump();
    }
    {
        std::lock_guard lock(mutex_);
        Runs& runs = runs_[task->name];
        if (type == beginUploadTaskDelegate) {
            ++runs.started;
            runs.endedAtStart = runs.ended;
            runs.file.clear();
        } else {
            ++runs.ended;
            runs.exitCode = code;
            runs.summary = std::move(summary);
            runs.result = std::move(result);
        }
    }
    changed_.notify_all();
}

} // namespace cirrovault::cli

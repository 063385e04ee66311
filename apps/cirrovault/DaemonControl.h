#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "HostSession.h"
#include "platform/os/UnixSocket.h"

namespace cirrovault::cli {

// The daemon's control socket, through which `backup NAME` hands a task to the daemon
// that runs the account's schedule instead of refusing beside it. One request a line,
// one reply a line, texts escaped (\n, \\):
//   ping            -> pong PID
//   backup NAME     -> line TEXT (queued, started: for the user), then while it waits
//                      and runs: progress SENT TOTAL (at least every second), file PATH
//                      (each file sent); at the end result JSON (when it succeeded) and
//                      done EXIT TEXT (the command's exit code and its last words).
//   stop            (after backup) takes the task off the queue or cancels its run.
// A client that goes away leaves the run going.
class DaemonControl {
public:
    // Listens at once; without a socket the daemon still runs, and commands beside it
    // find the account busy as before.
    explicit DaemonControl(HostSession& session);
    ~DaemonControl();
    DaemonControl(const DaemonControl&) = delete;
    DaemonControl& operator=(const DaemonControl&) = delete;

    bool listening() const { return listener_.valid(); }
    // No more requests; those following a run are told the daemon stops. Before the
    // log-off, whose cancelled run sends no end notice.
    void stop();

    // The account's socket, named after its data folder; "" when there is no safe place.
    static std::string socketPath(const std::string& accountFolder);
    static std::string escape(const std::string& text);
    static std::string unescape(const std::string& text);

private:
    // What the runs of one task did, as their notices told.
    struct Runs {
        uint64_t started = 0, ended = 0;
        uint64_t endedAtStart = 0; // ended when the last run started
        int exitCode = 0;
        std::string summary, result;
        std::string file; // being sent by the run under way
    };
    struct Peer {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> done;
    };

    void acceptLoop();
    void serve(UnixSocket peer);
    void follow(UnixSocket& peer, const std::string& name);
    void onEvent(const HostSession::TaskPtr& task, int32_t type);

    HostSession& session_;
    const std::string path_;
    UnixSocket listener_;
    size_t listenerId_ = 0;
    std::atomic<bool> stopping_{false};
    std::thread acceptor_;
    std::vector<Peer> peers_; // the acceptor's until stop() has joined it
    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::string, Runs> runs_; // guarded by mutex_
};

} // namespace cirrovault::cli

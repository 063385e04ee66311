#pragma once

#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>

namespace cirrovault::cli {

// The lock that lets one engine at a time run an account's tasks: an flock on
// "cirrovault.lock" in the account's data folder, holding the owner's pid. The system
// drops it when the owner ends, even by a crash, so a stale file never blocks anyone.
// The daemon holds it only while it runs a task, and holds a second one,
// "cirrovault-daemon.lock", for its whole life so that an account has one daemon.
class RunLock {
public:
    static constexpr const char* kRunFile = "cirrovault.lock";
    static constexpr const char* kDaemonFile = "cirrovault-daemon.lock";

    // Takes the lock; nullptr when another process (or another holder in this one)
    // has it, with its pid in *holder when it could be read.
    static std::unique_ptr<RunLock> acquire(const std::string& folder, pid_t* holder,
                                            const char* file = kRunFile);
    // The pid of the process holding the lock now, without taking it.
    static std::optional<pid_t> holder(const std::string& folder, const char* file = kRunFile);
    static std::string lockFilePath(const std::string& folder, const char* file = kRunFile);

    ~RunLock();
    RunLock(const RunLock&) = delete;
    RunLock& operator=(const RunLock&) = delete;

private:
    explicit RunLock(int fd) : fd_(fd) {}
    int fd_;
};

} // namespace cirrovault::cli

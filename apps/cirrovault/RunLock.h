#pragma once

#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>

namespace cirrovault::cli {

// The lock that lets one engine at a time run an account's tasks: an flock on
// "cirrovault.lock" in the account's data folder, holding the owner's pid. The system
// drops it when the owner ends, even by a crash, so a stale file never blocks anyone.
class RunLock {
public:
    // Takes the lock; nullptr when another process (or another holder in this one)
    // has it, with its pid in *holder when it could be read.
    static std::unique_ptr<RunLock> acquire(const std::string& folder, pid_t* holder);
    // The pid of the process holding the lock now, without taking it.
    static std::optional<pid_t> holder(const std::string& folder);
    static std::string lockFilePath(const std::string& folder);

    ~RunLock();
    RunLock(const RunLock&) = delete;
    RunLock& operator=(const RunLock&) = delete;

private:
    explicit RunLock(int fd) : fd_(fd) {}
    int fd_;
};

} // namespace cirrovault::cli

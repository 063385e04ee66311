#pragma once

#include <cstdint>
#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "HostSession.h"

namespace cirrovault::cli {

// What one run of a task did.
struct RunOutcome {
    bool started = false;
    int32_t state = 0;        // the task's end state: 3 cancelled, 4 succeeded, 5 failed
    uint64_t code = 0;        // the run's result code
    int32_t filesToSend = 0;  // new and changed files the scan found
    uint64_t bytesSent = 0;
    std::string errorText;
    std::vector<std::string> leftOut; // items the service cannot take, named to the user
};

// Runs a task under the progress window: the window shows what the run's own progress
// object tells; Cancel in the window, Ctrl-C or SIGTERM stop the run through the
// manager (its progress object's cancel mark), and the run ends cleanly, leaving what
// it sent for the next run to resume.
//
// Made before the run starts, so that it hears the run's first notices (the scan's
// totals) even when the manager starts the run itself.
class BackupRunner {
public:
    explicit BackupRunner(HostSession& session);
    ~BackupRunner();
    BackupRunner(const BackupRunner&) = delete;
    BackupRunner& operator=(const BackupRunner&) = delete;

    // Starts the task now through the manager and waits for its end.
    RunOutcome runNow(const HostSession::TaskPtr& task);
    // Watches a run the manager has already started (a new task's first run).
    RunOutcome watch(const HostSession::TaskPtr& task);
    // The sentence that tells the outcome.
    static std::string summary(const HostSession::TaskPtr& task, const RunOutcome& outcome);
    static int exitCode(const RunOutcome& outcome);
    // What the task's last run did, read on the run's own thread or after it ended.
    static RunOutcome outcomeOf(const HostSession::TaskPtr& task);
    // The --json document of a run that succeeded.
    static Json resultDocument(const HostSession::TaskPtr& task, const RunOutcome& outcome);

private:
    RunOutcome run(const HostSession::TaskPtr& task, const std::function<bool()>& start);
    static std::string stateSummary(const HostSession::TaskPtr& task, const RunOutcome& outcome);

    HostSession& session_;
    size_t listener_ = 0;
    // Objects of the run (its progress object counts only bytes), from its notices,
    // read on the run's own thread, which owns the fields they come from.
    std::atomic<int64_t> totalFiles_{0};
    std::atomic<int64_t> filesStarted_{0};
    std::atomic<uint64_t> totalBytes_{0};
    std::string lastFile_; // the run's thread only
};

} // namespace cirrovault::cli

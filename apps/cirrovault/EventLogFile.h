#pragma once

#include <optional>
#include <string>
#include <vector>

namespace cirrovault::cli {

// One entry of the account's event log as the host reads it.
struct EventRecord {
    std::string task;
    std::string taskID;
    std::string message; // decoded
    std::string time;
    std::string kind; // the stored label
};

// The account's event log read from its file (the engine's own reader only knows files
// written in this process), oldest first; empty when there is none.
std::vector<EventRecord> readEventLog(const std::string& path);

// What the log says of a task's last run: its start time, and whether it finished
// (success) or which error it reported; nullopt when it never ran.
struct LastRun {
    std::string started;
    bool finished = false;
    std::string error; // the last error entry of that run, "" if none
};
std::optional<LastRun> lastRunOf(const std::vector<EventRecord>& log, const std::string& task);

} // namespace cirrovault::cli

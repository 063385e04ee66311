#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace cirrovault {

// One local source path of a task on the service's task list.
struct TaskListPath {
    std::string path;
    int64_t isFolder = 0; // the folder flag as the client sent it (0 or 1 from this client)

    bool operator==(const TaskListPath&) const = default;
};

// One task as the service keeps it. Dates are kept as the client sent them,
// "yyyy-MM-dd HH:mm:ss" in the client's local time, so no time zone is ever applied
// on the service side.
struct TaskListRecord {
    int32_t taskID = 0;
    uint64_t computerID = 0;
    std::string taskName;
    std::string descr;
    std::string pcName;
    int32_t type = 0;
    std::string backupDate;
    std::string serverPath;
    std::vector<std::string> filterExts;
    std::vector<std::string> filterPaths;
    uint64_t maxVersion = 0;
    std::string nextDate;
    std::string beginDate;
    std::string endDate;
    std::string resumeDate;
    uint64_t remoteSize = 0;
    bool isResume = false;
    std::vector<TaskListPath> paths; // in the order they were added

    bool operator==(const TaskListRecord&) const = default;
};

// The account's task list as stored by a backend: a property list whose "Tasks" array
// holds one dictionary per task, in creation order, each with its "Paths".
class TaskListDocument {
public:
    std::vector<TaskListRecord> tasks;

    // An empty text is an account that has no list yet. A text that is not a task list
    // of this layout gives nothing (and a log line): it must not be overwritten.
    static std::optional<TaskListDocument> parse(const std::string& bytes);
    std::string serialize() const;

    TaskListRecord* find(const std::string& taskName);
    const TaskListRecord* find(const std::string& taskName) const;

    bool operator==(const TaskListDocument&) const = default;
};

} // namespace cirrovault

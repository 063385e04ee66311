#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace cirrovault {

class StoreBackend;
class TaskListDocument;

// The service's side of the task list: reads the request texts the client sends,
// applies them to the account's task-list document in the store and answers the reply
// texts. Every change is a read, an edit and a write guarded by the document's version;
// when another writer got in between, the change is applied again to what it wrote, so
// concurrent clients of one account lose nothing.
//
// Result codes: 0 done; 1 not logged on; 2 empty task name; 4 the task to edit does not
// exist; 5 the store could not be read or written (or holds a damaged list); 6 a task
// of that name exists already; 12 a request text that is not well formed. A refused
// request changes nothing.
class TaskListServer {
public:
    // How often a change is tried against a list that keeps changing under it.
    static constexpr int kMaxAttempts = 32;

    TaskListServer(std::shared_ptr<StoreBackend> backend, bool loggedOn);

    // An add/edit request: header fields, "Action=", numbered path entries and
    // "localPathNum=" last.
    int32_t UploadTaskList(const std::string& request);
    // The reply keys of every task, or of the one named (an empty reply when there is
    // no such task); with bGetLocalPath "true" also each task's paths.
    int32_t getTaskList(const std::string& taskName, const std::string& bGetLocalPath,
                        std::string& getTaskListInfo);
    // The account's task names joined with "|" (empty for no task).
    int32_t getTaskNames(const std::string& flag, std::string& taskNames);
    // One task name, or several joined with "|". Names that are not on the list are
    // already gone and count as deleted.
    int32_t deleteTasks(const std::string& request);

private:
    using Change = std::function<int32_t(TaskListDocument& document, bool& changed)>;
    int32_t update(const Change& change);
    int32_t read(TaskListDocument& document, std::string& version);

    std::shared_ptr<StoreBackend> backend_;
    bool loggedOn_;
};

} // namespace cirrovault

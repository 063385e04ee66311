// The task-list document kept in the store, and the request texts the task-list
// service reads. Input: document, a NUL byte, a request (an add/edit request or, after
// a second NUL, the names to delete).
#include <memory>

#include "FuzzInput.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/TaskListDocument.h"
#include "platform/framework/TaskListServer.h"
#include "platform/store/local/LocalStore.h"

namespace {

// A store that holds only a task-list document, with a version for compare-and-swap. The
// service touches nothing else, so the local store beneath is never opened.
struct DocumentOnlyStore : LocalStore {
    DocumentOnlyStore() : LocalStore("/nonexistent") {}
    std::string document;
    int writes = 0;

    int64_t readTaskList(std::string& text, std::string& version) override {
        text = document;
        version = std::to_string(writes);
        return ResultCode::Success;
    }
    int64_t writeTaskList(const std::string& text, const std::string& expected) override {
        if (expected != std::to_string(writes))
            return ResultCode::Conflict;
        document = text;
        ++writes;
        return ResultCode::Success;
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto parts = fuzz::fields(fuzz::text(data, size), '\0', 3);
    const std::string& documentText = parts[0];
    if (auto document = TaskListDocument::parse(documentText)) {
        const std::string written = document->serialize();
        auto again = TaskListDocument::parse(written);
        if (!again || !(*again == *document))
            fuzz::broken("a serialized task list does not read back the same");
    }
    if (parts.size() < 2)
        return 0;

    auto store = std::make_shared<DocumentOnlyStore>();
    store->document = documentText;
    TaskListServer server(store, true);
    std::string reply;
    if (parts.size() == 3) {
        server.deleteTasks(parts[2]);
    } else {
        const int writesBefore = store->writes;
        if (server.UploadTaskList(parts[1]) != 0 && store->writes != writesBefore)
            fuzz::broken("a refused request changed the list");
    }
    server.getTaskNames("", reply);
    server.getTaskList("", "true", reply);
    return 0;
}

// The task-list document kept in the store, and the request texts the task-list
// service reads. Input: document, a NUL byte, a request (an add/edit request or, after
// a second NUL, the names to delete).
#include <memory>

#include "FuzzInput.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/TaskListDocument.h"
#include "platform/framework/TaskListServer.h"
#include "platform/store/StoreBackend.h"

namespace {

// A store that holds only a task-list document, with a version for compare-and-swap.
class DocumentOnlyStore : public StoreBackend {
public:
    using S = const std::string&;
    std::string document;
    int writes = 0;

    int64_t readTaskList(std::string& text, std::string& version) override {
        text = document;
        version = std::to_string(writes);
        return ResultCode::Success;
    }
    int64_t writeTaskList(S text, S expected) override {
        if (expected != std::to_string(writes))
            return ResultCode::Conflict;
        document = text;
        ++writes;
        return ResultCode::Success;
    }
    StoreCapabilities capabilities() const override { return {}; }
    std::string describe() const override { return "fuzz"; }
    int64_t logon(S, S, StoreSession&) override { return 0; }
    void logoff() override {}
    int64_t stat(S, StoreItem&) override { return ResultCode::NotFound; }
    int64_t list(S, std::vector<StoreItem>&) override { return ResultCode::NotFound; }
    int64_t makeFolder(S, S, S) override { return ResultCode::Failure; }
    int64_t setFolderInfo(S, S, S) override { return ResultCode::Failure; }
    int64_t put(S, ByteSource&, Date, TransferObserver*) override { return ResultCode::Failure; }
    int64_t get(S, ByteSink&, TransferObserver*) override { return ResultCode::Failure; }
    int64_t move(S, S) override { return ResultCode::Failure; }
    int64_t copy(S, S) override { return ResultCode::Failure; }
    int64_t remove(S) override { return ResultCode::Failure; }
    int64_t quota(StoreQuota&) override { return ResultCode::Failure; }
    int64_t flush() override { return 0; }
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

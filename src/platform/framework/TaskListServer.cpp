#include "platform/framework/TaskListServer.h"

#include <algorithm>
#include <charconv>
#include <random>
#include <stdexcept>
#include <unordered_set>
#include <vector>

#include "platform/os/ResultCodes.h"
#include "platform/framework/TaskListDocument.h"
#include "platform/os/UrlCoding.h"
#include "platform/os/Clock.h"
#include "platform/os/SystemLog.h"
#include "platform/store/StoreBackend.h"

namespace cirrovault {

namespace {

constexpr int32_t code(int64_t resultCode) {
    return static_cast<int32_t>(resultCode);
}

// The task list answers 6 for a name that is taken (elsewhere 6 means cancelled).
constexpr int32_t kTaskExists = 6;

// Thrown while reading a request; the text names what is wrong for the log.
struct Refused : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct PathEntry {
    std::string path;
    int64_t isFolder = 0;
    bool add = false;
};

struct UploadRequest {
    TaskListRecord header; // every field but the paths
    std::string oldTaskName;
    bool add = false;
    std::vector<PathEntry> entries;
};

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        size_t end = text.find(separator, start);
        parts.push_back(text.substr(start, end - start));
        if (end == std::string::npos)
            return parts;
        start = end + 1;
    }
}

bool isHex(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool wellEncoded(const std::string& text) {
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%')
            continue;
        if (i + 2 >= text.size() || !isHex(text[i + 1]) || !isHex(text[i + 2]))
            return false;
        i += 2;
    }
    return true;
}

template <typename Number> Number number(const std::string& text, const std::string& key) {
    Number value{};
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size())
        throw Refused("bad number in " + key + ": " + text);
    return value;
}

bool flag(const std::string& text, const std::string& key) {
    if (text != "0" && text != "1")
        throw Refused("bad flag in " + key + ": " + text);
    return text == "1";
}

// "yyyy-MM-dd HH:mm:ss", the request's date form.
std::string date(const std::string& text, const std::string& key) {
    auto digits = [&](size_t at, size_t count, int low, int high) {
        int value = 0;
        for (size_t i = at; i < at + count; ++i) {
            if (text[i] < '0' || text[i] > '9')
                throw Refused("bad date in " + key + ": " + text);
            value = value * 10 + (text[i] - '0');
        }
        if (value < low || value > high)
            throw Refused("date out of range in " + key + ": " + text);
    };
    if (text.size() != 19 || text[4] != '-' || text[7] != '-' || text[10] != ' ' ||
        text[13] != ':' || text[16] != ':')
        throw Refused("bad date in " + key + ": " + text);
    digits(0, 4, 0, 9999);
    digits(5, 2, 1, 12);
    digits(8, 2, 1, 31);
    digits(11, 2, 0, 23);
    digits(14, 2, 0, 59);
    digits(17, 2, 0, 60);
    return text;
}

std::string replyDate(const std::string& stored) {
    if (stored.size() != 19)
        return stored;
    return stored.substr(5, 2) + "/" + stored.substr(8, 2) + "/" + stored.substr(0, 4) +
           stored.substr(10);
}

// Reads the pairs of a request strictly in the order the client writes them.
class RequestReader {
public:
    explicit RequestReader(const std::string& request) {
        for (auto& piece : split(request, '&')) {
            size_t equals = piece.find('=');
            if (equals == std::string::npos)
                throw Refused("a pair without \"=\": " + piece);
            std::string value = piece.substr(equals + 1);
            if (!wellEncoded(value))
                throw Refused("bad percent-encoding: " + piece);
            pairs_.emplace_back(piece.substr(0, equals), std::move(value));
        }
    }

    bool nextKeyStartsWith(const std::string& prefix) const {
        return next_ < pairs_.size() && pairs_[next_].first.rfind(prefix, 0) == 0;
    }

    // The value of the next pair, still encoded; the pair must have this key.
    std::string raw(const std::string& key) {
        if (next_ >= pairs_.size())
            throw Refused("missing " + key);
        if (pairs_[next_].first != key)
            throw Refused("expected " + key + ", found " + pairs_[next_].first);
        return pairs_[next_++].second;
    }
    std::string text(const std::string& key) { return UrlCoding::decode(raw(key)); }

    // "a|b|": encoded entries, each followed by a plain "|".
    std::vector<std::string> list(const std::string& key) {
        std::string value = raw(key);
        std::vector<std::string> entries;
        if (value.empty())
            return entries;
        if (value.back() != '|')
            throw Refused("list without its closing \"|\" in " + key);
        value.pop_back();
        for (auto& entry : split(value, '|')) {
            if (entry.empty())
                throw Refused("empty list entry in " + key);
            entries.push_back(UrlCoding::decode(entry));
        }
        return entries;
    }

    bool atEnd() const { return next_ == pairs_.size(); }

private:
    std::vector<std::pair<std::string, std::string>> pairs_;
    size_t next_ = 0;
};

UploadRequest parseUpload(const std::string& request) {
    RequestReader reader(request);
    UploadRequest upload;
    TaskListRecord& task = upload.header;
    task.taskID = number<int32_t>(reader.text("TaskID"), "TaskID");
    task.computerID = number<uint64_t>(reader.text("ComputerID"), "ComputerID");
    task.taskName = reader.text("TaskName");
    task.descr = reader.text("Descr");
    task.pcName = reader.text("PcName");
    task.type = number<int32_t>(reader.text("Type"), "Type");
    task.backupDate = date(reader.text("BackupDate"), "BackupDate");
    task.serverPath = reader.text("ServerPath");
    task.filterExts = reader.list("FilterExts");
    task.filterPaths = reader.list("FilterPaths");
    task.maxVersion = number<uint64_t>(reader.text("MaxVersion"), "MaxVersion");
    task.nextDate = date(reader.text("NextDate"), "NextDate");
    task.beginDate = date(reader.text("BeginDate"), "BeginDate");
    task.endDate = date(reader.text("EndDate"), "EndDate");
    task.resumeDate = date(reader.text("ResumeDate"), "ResumeDate");
    task.remoteSize = number<uint64_t>(reader.text("RemoteSize"), "RemoteSize");
    task.isResume = flag(reader.text("IsResume"), "IsResume");
    reader.text("Upgraded"); // the service keeps no trace of an upgrade
    upload.oldTaskName = reader.text("OldTaskName");
    std::string action = reader.text("Action");
    if (action != "Add" && action != "Edit")
        throw Refused("unknown action: " + action);
    upload.add = action == "Add";

    // Names are joined with "|" in the names reply and in delete requests.
    if (task.taskName.find('|') != std::string::npos ||
        upload.oldTaskName.find('|') != std::string::npos)
        throw Refused("a task name with \"|\": " + task.taskName);

    while (reader.nextKeyStartsWith("IsFolder")) {
        std::string index = std::to_string(upload.entries.size());
        PathEntry entry;
        entry.isFolder = number<int64_t>(reader.text("IsFolder" + index), "IsFolder" + index);
        entry.path = reader.text("Path" + index);
        reader.raw("Serial" + index); // reserved, always empty from this client
        entry.add = flag(reader.text("Action" + index), "Action" + index);
        if (entry.path.empty())
            throw Refused("empty path in Path" + index);
        upload.entries.push_back(std::move(entry));
    }
    uint64_t count = number<uint64_t>(reader.text("localPathNum"), "localPathNum");
    if (!reader.atEnd())
        throw Refused("pairs after localPathNum");
    if (count != upload.entries.size())
        throw Refused("localPathNum " + std::to_string(count) + " for " +
                      std::to_string(upload.entries.size()) + " entries");
    return upload;
}

int32_t applyUpload(TaskListDocument& document, const UploadRequest& upload) {
    const std::string& name = upload.header.taskName;
    TaskListRecord* task = nullptr;
    if (upload.add) {
        if (document.find(name))
            return kTaskExists;
        document.tasks.push_back(upload.header);
        task = &document.tasks.back();
    } else {
        task = document.find(upload.oldTaskName);
        if (!task) {
            // Every batch of a renaming edit carries the old name; the first batch
            // renamed the task already, so the later ones find it under its new name.
            TaskListRecord* renamed = document.find(name);
            if (!renamed || renamed->taskID != upload.header.taskID)
                return code(ResultCode::OldTaskNotFound);
            task = renamed;
        } else if (name != upload.oldTaskName && document.find(name)) {
            return kTaskExists;
        }
        std::vector<TaskListPath> paths = std::move(task->paths);
        *task = upload.header;
        task->paths = std::move(paths);
    }

    std::unordered_set<std::string> present;
    for (const auto& entry : task->paths)
        present.insert(entry.path);
    for (const auto& entry : upload.entries) {
        if (entry.add) {
            if (present.insert(entry.path).second) {
                task->paths.push_back({entry.path, entry.isFolder});
            } else {
                for (auto& kept : task->paths)
                    if (kept.path == entry.path)
                        kept.isFolder = entry.isFolder;
            }
        } else if (present.erase(entry.path)) {
            std::erase_if(task->paths, [&](const TaskListPath& p) { return p.path == entry.path; });
        }
    }
    return code(ResultCode::Success);
}

void appendPair(std::string& reply, const std::string& key, const std::string& value) {
    if (!reply.empty())
        reply += '&';
    reply += key;
    reply += '=';
    reply += UrlCoding::encode(value);
}

std::string joined(const std::vector<std::string>& texts) {
    std::string out;
    for (size_t i = 0; i < texts.size(); ++i)
        out += (i ? "|" : "") + texts[i];
    return out;
}

void appendTask(std::string& reply, const TaskListRecord& task, bool withPaths) {
    appendPair(reply, "RETURN_TaskID", std::to_string(task.taskID));
    appendPair(reply, "RETURN_TaskName", task.taskName);
    appendPair(reply, "RETURN_Descr", task.descr);
    appendPair(reply, "RETURN_PcName", task.pcName);
    appendPair(reply, "RETURN_Type", std::to_string(task.type));
    appendPair(reply, "RETURN_BackupDate", replyDate(task.backupDate));
    appendPair(reply, "RETURN_ServerPath", task.serverPath);
    appendPair(reply, "RETURN_FilterExts", joined(task.filterExts));
    appendPair(reply, "RETURN_FilterPaths", joined(task.filterPaths));
    // The client reads the maximum-version key under this spelling; it must stay so.
    appendPair(reply, "ETURN_MaxVersion", std::to_string(task.maxVersion));
    appendPair(reply, "RETURN_NextDate", replyDate(task.nextDate));
    appendPair(reply, "RETURN_BeginDate", replyDate(task.beginDate));
    appendPair(reply, "RETURN_EndDate", replyDate(task.endDate));
    appendPair(reply, "RETURN_ResumeDate", replyDate(task.resumeDate));
    appendPair(reply, "RETURN_IsResume", task.isResume ? "1" : "0");
    appendPair(reply, "RETURN_PcID", std::to_string(task.computerID));
    if (!withPaths)
        return;
    for (const auto& entry : task.paths) {
        appendPair(reply, "RETURN_Path", entry.path);
        appendPair(reply, "RETURN_IsFolder", std::to_string(entry.isFolder));
    }
}

// A short pause with some spread, so that two writers that met once do not meet again.
void backOff(int attempt) {
    thread_local std::minstd_rand random{std::random_device{}()};
    double milliseconds = std::min(attempt + 1, 10) + static_cast<double>(random() % 5);
    Clock::shared().sleepFor(milliseconds / 1000.0);
}

} // namespace

TaskListServer::TaskListServer(std::shared_ptr<StoreBackend> backend, bool loggedOn)
    : backend_(std::move(backend)), loggedOn_(loggedOn) {}

int32_t TaskListServer::read(TaskListDocument& document, std::string& version) {
    std::string bytes;
    int64_t rc = backend_->readTaskList(bytes, version);
    if (rc == ResultCode::NotLoggedOn)
        return code(rc);
    if (rc != ResultCode::Success) {
        SystemLog::write("Error: task list could not be read, code " + std::to_string(rc));
        return code(ResultCode::StorageError);
    }
    auto parsed = TaskListDocument::parse(bytes);
    if (!parsed)
        return code(ResultCode::StorageError); // a damaged list is left as it is
    document = std::move(*parsed);
    return code(ResultCode::Success);
}

int32_t TaskListServer::update(const Change& change) {
    for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
        TaskListDocument document;
        std::string version;
        int32_t result = read(document, version);
        if (result != ResultCode::Success)
            return result;
        bool changed = false;
        result = change(document, changed);
        if (result != ResultCode::Success || !changed)
            return result;
        int64_t rc = backend_->writeTaskList(document.serialize(), version);
        if (rc == ResultCode::Success)
            return result;
        if (rc == ResultCode::NotLoggedOn)
            return code(rc);
        if (rc != ResultCode::Conflict) {
            SystemLog::write("Error: task list could not be written, code " + std::to_string(rc));
            return code(ResultCode::StorageError);
        }
        backOff(attempt);
    }
    SystemLog::write("Error: task list kept changing, gave up after " +
                     std::to_string(kMaxAttempts) + " attempts");
    return code(ResultCode::StorageError);
}

int32_t TaskListServer::UploadTaskList(const std::string& request) {
    try {
        if (!loggedOn_ || !backend_)
            return code(ResultCode::NotLoggedOn);
        UploadRequest upload;
        try {
            upload = parseUpload(request);
        } catch (const Refused& refused) {
            SystemLog::write(std::string("Error: task list request refused: ") + refused.what());
            return code(ResultCode::BadRequest);
        }
        if (upload.header.taskName.empty())
            return code(ResultCode::EmptyName);
        return update([&](TaskListDocument& document, bool& changed) {
            int32_t result = applyUpload(document, upload);
            changed = result == ResultCode::Success;
            return result;
        });
    } catch (const std::exception&) {
        SystemLog::write("Error: TaskListServer::UploadTaskList()");
        return code(ResultCode::Failure);
    }
}

int32_t TaskListServer::getTaskList(const std::string& taskName, const std::string& bGetLocalPath,
                                    std::string& getTaskListInfo) {
    getTaskListInfo.clear();
    try {
        if (!loggedOn_ || !backend_)
            return code(ResultCode::NotLoggedOn);
        if (bGetLocalPath != "true" && bGetLocalPath != "false") {
            SystemLog::write("Error: task list request refused: bGetLocalPath " + bGetLocalPath);
            return code(ResultCode::BadRequest);
        }
        TaskListDocument document;
        std::string version;
        int32_t result = read(document, version);
        if (result != ResultCode::Success)
            return result;
        std::string reply;
        for (const auto& task : document.tasks)
            if (taskName.empty() || task.taskName == taskName)
                appendTask(reply, task, bGetLocalPath == "true");
        getTaskListInfo = std::move(reply);
        return result;
    } catch (const std::exception&) {
        SystemLog::write("Error: TaskListServer::getTaskList()");
        getTaskListInfo.clear();
        return code(ResultCode::Failure);
    }
}

int32_t TaskListServer::getTaskNames(const std::string& flag, std::string& taskNames) {
    (void)flag; // every name of the account is answered, whichever computer made the task
    taskNames.clear();
    try {
        if (!loggedOn_ || !backend_)
            return code(ResultCode::NotLoggedOn);
        TaskListDocument document;
        std::string version;
        int32_t result = read(document, version);
        if (result != ResultCode::Success)
            return result;
        std::vector<std::string> names;
        for (const auto& task : document.tasks)
            names.push_back(task.taskName);
        taskNames = joined(names);
        return result;
    } catch (const std::exception&) {
        SystemLog::write("Error: TaskListServer::getTaskNames()");
        taskNames.clear();
        return code(ResultCode::Failure);
    }
}

int32_t TaskListServer::deleteTasks(const std::string& request) {
    try {
        if (!loggedOn_ || !backend_)
            return code(ResultCode::NotLoggedOn);
        std::vector<std::string> names;
        for (auto& name : split(request, '|'))
            if (!name.empty())
                names.push_back(std::move(name));
        if (names.empty())
            return code(ResultCode::EmptyName);
        return update([&](TaskListDocument& document, bool& changed) {
            size_t before = document.tasks.size();
            std::unordered_set<std::string> doomed(names.begin(), names.end());
            std::erase_if(document.tasks, [&](const TaskListRecord& task) {
                return doomed.count(task.taskName) > 0;
            });
            changed = document.tasks.size() != before;
            return code(ResultCode::Success);
        });
    } catch (const std::exception&) {
        SystemLog::write("Error: TaskListServer::deleteTasks()");
        return code(ResultCode::Failure);
    }
}

} // namespace cirrovault

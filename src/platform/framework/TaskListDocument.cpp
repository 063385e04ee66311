#include "platform/framework/TaskListDocument.h"

#include <stdexcept>

#include "platform/framework/PropertyList.h"
#include "platform/os/SystemLog.h"

namespace cirrovault {

namespace {

constexpr int64_t kFormatVersion = 1;

// Unsigned 64-bit values travel through the property list's signed integers bit for bit.
PropertyList unsignedValue(uint64_t value) {
    return PropertyList(static_cast<int64_t>(value));
}

PropertyList textArray(const std::vector<std::string>& texts) {
    PlistArray array;
    array.reserve(texts.size());
    for (const auto& text : texts)
        array.emplace_back(text);
    return PropertyList(std::move(array));
}

// Readers of one member; any mismatch means the document is not ours or is damaged.
struct Damaged : std::runtime_error {
    using std::runtime_error::runtime_error;
};

const PropertyList& member(const PropertyList& dict, const char* key) {
    const PropertyList* value = dict.find(key);
    if (!value)
        throw Damaged(std::string("missing ") + key);
    return *value;
}

std::string textMember(const PropertyList& dict, const char* key) {
    const std::string* text = member(dict, key).string();
    if (!text)
        throw Damaged(std::string("not a text: ") + key);
    return *text;
}

int64_t integerMember(const PropertyList& dict, const char* key) {
    const auto* number = std::get_if<int64_t>(&member(dict, key).value());
    if (!number)
        throw Damaged(std::string("not an integer: ") + key);
    return *number;
}

bool boolMember(const PropertyList& dict, const char* key) {
    const auto* flag = std::get_if<bool>(&member(dict, key).value());
    if (!flag)
        throw Damaged(std::string("not a boolean: ") + key);
    return *flag;
}

const PlistArray& arrayMember(const PropertyList& dict, const char* key) {
    const PlistArray* array = member(dict, key).array();
    if (!array)
        throw Damaged(std::string("not an array: ") + key);
    return *array;
}

std::vector<std::string> textArrayMember(const PropertyList& dict, const char* key) {
    std::vector<std::string> texts;
    for (const auto& item : arrayMember(dict, key)) {
        if (!item.string())
            throw Damaged(std::string("not a text in ") + key);
        texts.push_back(*item.string());
    }
    return texts;
}

TaskListRecord recordFrom(const PropertyList& dict) {
    if (!dict.isDict())
        throw Damaged("task is not a dictionary");
    TaskListRecord task;
    task.taskID = static_cast<int32_t>(integerMember(dict, "TaskID"));
    task.computerID = static_cast<uint64_t>(integerMember(dict, "ComputerID"));
    task.taskName = textMember(dict, "TaskName");
    task.descr = textMember(dict, "Descr");
    task.pcName = textMember(dict, "PcName");
    task.type = static_cast<int32_t>(integerMember(dict, "Type"));
    task.backupDate = textMember(dict, "BackupDate");
    task.serverPath = textMember(dict, "ServerPath");
    task.filterExts = textArrayMember(dict, "FilterExts");
    task.filterPaths = textArrayMember(dict, "FilterPaths");
    task.maxVersion = static_cast<uint64_t>(integerMember(dict, "MaxVersion"));
    task.nextDate = textMember(dict, "NextDate");
    task.beginDate = textMember(dict, "BeginDate");
    task.endDate = textMember(dict, "EndDate");
    task.resumeDate = textMember(dict, "ResumeDate");
    task.remoteSize = static_cast<uint64_t>(integerMember(dict, "RemoteSize"));
    task.isResume = boolMember(dict, "IsResume");
    for (const auto& entry : arrayMember(dict, "Paths")) {
        if (!entry.isDict())
            throw Damaged("path is not a dictionary");
        task.paths.push_back({textMember(entry, "Path"), integerMember(entry, "IsFolder")});
    }
    if (task.taskName.empty())
        throw Damaged("task without a name");
    return task;
}

PropertyList dictFrom(const TaskListRecord& task) {
    PlistArray paths;
    paths.reserve(task.paths.size());
    for (const auto& entry : task.paths)
        paths.emplace_back(PlistDict{{"Path", PropertyList(entry.path)},
                                     {"IsFolder", PropertyList(entry.isFolder)}});
    return PropertyList(PlistDict{
        {"TaskID", PropertyList(static_cast<int64_t>(task.taskID))},
        {"ComputerID", unsignedValue(task.computerID)},
        {"TaskName", PropertyList(task.taskName)},
        {"Descr", PropertyList(task.descr)},
        {"PcName", PropertyList(task.pcName)},
        {"Type", PropertyList(static_cast<int64_t>(task.type))},
        {"BackupDate", PropertyList(task.backupDate)},
        {"ServerPath", PropertyList(task.serverPath)},
        {"FilterExts", textArray(task.filterExts)},
        {"FilterPaths", textArray(task.filterPaths)},
        {"MaxVersion", unsignedValue(task.maxVersion)},
        {"NextDate", PropertyList(task.nextDate)},
        {"BeginDate", PropertyList(task.beginDate)},
        {"EndDate", PropertyList(task.endDate)},
        {"ResumeDate", PropertyList(task.resumeDate)},
        {"RemoteSize", unsignedValue(task.remoteSize)},
        {"IsResume", PropertyList(task.isResume)},
        {"Paths", PropertyList(std::move(paths))},
    });
}

} // namespace

std::optional<TaskListDocument> TaskListDocument::parse(const std::string& bytes) {
    if (bytes.empty())
        return TaskListDocument{};
    try {
        auto root = PropertyList::parse(bytes);
        if (!root || !root->isDict())
            throw Damaged("not a property list dictionary");
        if (integerMember(*root, "FormatVersion") != kFormatVersion)
            throw Damaged("unknown format version");
        TaskListDocument document;
        for (const auto& entry : arrayMember(*root, "Tasks")) {
            TaskListRecord task = recordFrom(entry);
            if (document.find(task.taskName))
                throw Damaged("task name twice: " + task.taskName);
            document.tasks.push_back(std::move(task));
        }
        return document;
    } catch (const std::exception& e) {
        SystemLog::write(std::string("Error: damaged task list document (") + e.what() + ")");
        return std::nullopt;
    }
}

std::string TaskListDocument::serialize() const {
    PlistArray array;
    array.reserve(tasks.size());
    for (const auto& task : tasks)
        array.push_back(dictFrom(task));
    return PropertyList(PlistDict{{"FormatVersion", PropertyList(kFormatVersion)},
                                  {"Tasks", PropertyList(std::move(array))}})
        .toXml();
}

TaskListRecord* TaskListDocument::find(const std::string& taskName) {
    for (auto& task : tasks)
        if (task.taskName == taskName)
            return &task;
    return nullptr;
}

const TaskListRecord* TaskListDocument::find(const std::string& taskName) const {
    return const_cast<TaskListDocument*>(this)->find(taskName);
}

} // namespace cirrovault

#include "EventLogFile.h"

#include "platform/framework/LoadString.h"
#include "platform/os/FileSystem.h"
#include "support/CErrorLog.h"

namespace cirrovault::cli {

namespace {

std::vector<std::string> split(const std::string& line, char separator) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t at; (at = line.find(separator, start)) != std::string::npos; start = at + 1)
        parts.push_back(line.substr(start, at - start));
    parts.push_back(line.substr(start));
    return parts;
}

} // namespace

std::vector<EventRecord> readEventLog(const std::string& path) {
    std::vector<EventRecord> records;
    auto content = FileSystem::readFile(path);
    if (!content)
        return records;
    auto lines = split(*content, '\n');
    for (size_t i = 1; i < lines.size(); ++i) { // line 1 is the format mark
        if (lines[i].empty())
            continue;
        auto fields = split(lines[i], '|');
        if (fields.size() < 5)
            continue;
        records.push_back({fields[0], fields[1], CErrorLog::DecodeEventMsg(fields[2]).value_or(""),
                           fields[3], fields[4]});
    }
    return records;
}

std::optional<LastRun> lastRunOf(const std::vector<EventRecord>& log, const std::string& task) {
    const std::string started = LoadString::GetValueByKey("EventLogStart", "");
    const std::string finished = LoadString::GetValueByKey("EventLogFinish", "");
    const std::string error = LoadString::GetValueByKey("eventLogError", "");
    std::optional<LastRun> last;
    for (const auto& record : log) {
        if (record.task != task)
            continue;
        if (!started.empty() && record.message == started)
            last = LastRun{record.time, false, ""};
        else if (last && !finished.empty() && record.message == finished)
            last->finished = true;
        else if (last && !error.empty() && record.kind == error)
            last->error = record.message;
    }
    return last;
}

} // namespace cirrovault::cli

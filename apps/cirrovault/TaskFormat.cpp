#include "TaskFormat.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "platform/framework/Functions.h"
#include "platform/os/Calendar.h"
#include "platform/os/SystemItems.h"
#include "support/GlobalFunction.h"

namespace cirrovault::cli {

namespace {

const char* const kWeekdays[] = {"Sunday", "Monday", "Tuesday", "Wednesday",
                                 "Thursday", "Friday", "Saturday"};

std::string join(const std::vector<std::string>& list) {
    std::string text;
    for (const auto& item : list)
        text += (text.empty() ? "" : ", ") + item;
    return text;
}

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
    return s;
}

bool readInt(const std::string& text, size_t& pos, size_t digits, int& value) {
    if (pos + digits > text.size())
        return false;
    value = 0;
    for (size_t i = 0; i < digits; ++i) {
        char c = text[pos + i];
        if (c < '0' || c > '9')
            return false;
        value = value * 10 + (c - '0');
    }
    pos += digits;
    return true;
}

} // namespace

std::string TaskFormat::stateName(int32_t state) {
    switch (state) {
    case CBackupTask::StateIdle: return "idle";
    case CBackupTask::StateRunning: return "running";
    case CBackupTask::StateWaiting: return "waiting";
    case CBackupTask::StateCancelled: return "cancelled";
    case CBackupTask::StateSucceeded: return "succeeded";
    case CBackupTask::StateFailed: return "failed";
    default: return "state " + std::to_string(state);
    }
}

std::string TaskFormat::scheduleKindName(int32_t kind) {
    switch (kind) {
    case CBackupTask::ScheduleNone: return "none";
    case CBackupTask::ScheduleDaily: return "daily";
    case CBackupTask::ScheduleWeekly: return "weekly";
    case CBackupTask::ScheduleBetweenDates: return "dates";
    default: return "kind " + std::to_string(kind);
    }
}

std::optional<int32_t> TaskFormat::scheduleKind(const std::string& name) {
    std::string n = lower(name);
    if (n == "none" || n == "manual")
        return CBackupTask::ScheduleNone;
    if (n == "daily")
        return CBackupTask::ScheduleDaily;
    if (n == "weekly")
        return CBackupTask::ScheduleWeekly;
    if (n == "dates" || n == "once")
        return CBackupTask::ScheduleBetweenDates;
    return std::nullopt;
}

bool TaskFormat::isNever(Date date) {
    // A task that never ran keeps the record's placeholder, the first day of 1971.
    return date.timeIntervalSince1970() < 366.0 * 86400;
}

std::string TaskFormat::dateText(Date date) {
    if (isNever(date))
        return "never";
    return Functions::stringTransFromedDate(date, "yyyy-MM-dd HH:mm");
}

std::optional<Date> TaskFormat::parseDate(const std::string& text, bool endOfDay) {
    DateComponents c;
    size_t pos = 0;
    if (!readInt(text, pos, 4, c.year) || pos >= text.size() || text[pos++] != '-' ||
        !readInt(text, pos, 2, c.month) || pos >= text.size() || text[pos++] != '-' ||
        !readInt(text, pos, 2, c.day))
        return std::nullopt;
    if (pos == text.size()) {
        if (endOfDay) {
            c.hour = 23;
            c.minute = 59;
        }
    } else {
        if (text[pos] != ' ' && text[pos] != 'T')
            return std::nullopt;
        ++pos;
        if (!readInt(text, pos, 2, c.hour) || pos >= text.size() || text[pos++] != ':' ||
            !readInt(text, pos, 2, c.minute) || pos != text.size())
            return std::nullopt;
    }
    if (c.month < 1 || c.month > 12 || c.day < 1 || c.day > 31 || c.hour > 23 || c.minute > 59 ||
        c.year < 1970 || c.year > 9999)
        return std::nullopt;
    Date date = Calendar::dateFromComponents(c);
    // The calendar rolls 31 February over to March: such a date was not a date.
    DateComponents back = Calendar::components(date);
    if (back.year != c.year || back.month != c.month || back.day != c.day)
        return std::nullopt;
    return date;
}

std::optional<int> TaskFormat::parseTime(const std::string& text) {
    int hour = 0;
    int minute = 0;
    size_t pos = 0;
    size_t hourDigits = text.size() == 4 ? 1 : 2;
    if (!readInt(text, pos, hourDigits, hour) || pos >= text.size() || text[pos++] != ':' ||
        !readInt(text, pos, 2, minute) || pos != text.size() || hour > 23 || minute > 59)
        return std::nullopt;
    return hour * 60 + minute;
}

std::optional<int> TaskFormat::parseWeekday(const std::string& text) {
    std::string n = lower(text);
    if (n.size() < 2)
        return std::nullopt;
    for (int i = 0; i < 7; ++i) {
        std::string day = lower(kWeekdays[i]);
        if (day.compare(0, n.size(), n) == 0 && n.size() >= 3)
            return i + 1;
    }
    return std::nullopt;
}

std::string TaskFormat::weekdayName(int weekday) {
    return weekday >= 1 && weekday <= 7 ? kWeekdays[weekday - 1] : "?";
}

std::string TaskFormat::countText(size_t count, const std::string& one, const std::string& many) {
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

std::vector<std::string> TaskFormat::sources(const CBackupTask& task) {
    std::vector<std::string> paths;
    for (const auto& entry : task.localDirList)
        paths.push_back(entry.isRecord() ? entry.record().m_strPath : entry.path());
    return paths;
}

std::string TaskFormat::scheduleText(const CBackupTask& task) {
    int32_t kind = task.taskType & CBackupTask::ScheduleKindMask;
    std::string at = Functions::stringTransFromedDate(task.mDating, "HH:mm");
    switch (kind) {
    case CBackupTask::ScheduleNone: return "no schedule, runs when you start it";
    case CBackupTask::ScheduleDaily: return "daily at " + at;
    case CBackupTask::ScheduleWeekly:
        return "weekly on " + weekdayName(Calendar::weekday(task.mDating)) + " at " + at;
    case CBackupTask::ScheduleBetweenDates:
        return "once between " + dateText(task.mBeginDate) + " and " + dateText(task.mEndDate) +
               ", from " + at;
    default: return scheduleKindName(kind);
    }
}

Json TaskFormat::toJson(const CBackupTask& task, bool details) {
    int32_t kind = task.taskType & CBackupTask::ScheduleKindMask;
    Json j = Json::object();
    j.set("name", task.name)
        .set("state", stateName(task.mTaskState))
        .set("schedule", scheduleKindName(kind))
        .set("lastBackup", !isNever(task.mBackupDate) ? Json::date(task.mBackupDate) : Json())
        .set("nextRun", kind == CBackupTask::ScheduleNone ? Json() : Json::date(task.mDating))
        .set("lastError", task.strErrLog && !task.strErrLog->empty() ? Json(*task.strErrLog) : Json())
        .set("otherComputer", task.bMigrateTask);
    if (!details)
        return j;
    Json sources = Json::array();
    for (const auto& s : TaskFormat::sources(task))
        sources.push(s);
    Json ext = Json::array();
    for (const auto& e : task.filterExt)
        ext.push(e);
    Json folders = Json::array();
    for (const auto& f : task.filtedPath)
        folders.push(f);
    j.set("description", task.description)
        .set("taskID", task.taskID)
        .set("computer", task.mPCName)
        .set("serverFolder", task.serverPath)
        .set("encrypted", task.bEncryMode)
        .set("scheduleText", scheduleText(task))
        .set("begin", Json::date(task.mBeginDate))
        .set("end", Json::date(task.mEndDate))
        .set("maxVersions", task.uiMaxVersion)
        .set("sizeOnService", task.uiRemoteSize)
        .set("sources", sources)
        .set("excludeExtensions", ext)
        .set("excludeFolders", folders)
        .set("skipHidden", (task.taskType & CBackupTask::SkipHiddenFlag) != 0);
    Json always = Json::array();
    for (const auto& item : SystemItems::describeLeftOut())
        always.push(item);
    j.set("alwaysLeftOut", always);
    return j;
}

std::vector<std::string> TaskFormat::describe(const CBackupTask& task) {
    std::vector<std::string> lines;
    auto add = [&](const std::string& label, const std::string& value) {
        char buf[32];
        std::snprintf(buf, sizeof buf, "%-13s", label.c_str());
        lines.push_back(buf + value);
    };
    add("task", task.name);
    if (!task.description.empty() && task.description != task.name)
        add("description", task.description);
    add("state", stateName(task.mTaskState));
    add("schedule", scheduleText(task));
    if ((task.taskType & CBackupTask::ScheduleKindMask) != CBackupTask::ScheduleNone)
        add("next run", dateText(task.mDating));
    add("last backup", dateText(task.mBackupDate));
    if (task.strErrLog && !task.strErrLog->empty())
        add("last error", *task.strErrLog);
    for (const auto& s : sources(task))
        add("source", s);
    if (!task.filterExt.empty())
        add("skip files", join(task.filterExt));
    if (!task.filtedPath.empty())
        add("skip folders", join(task.filtedPath));
    add("dot-names", (task.taskType & CBackupTask::SkipHiddenFlag) != 0
                         ? "left out (--skip-hidden)"
                         : "backed up (dotfiles are settings; --skip-hidden leaves them out)");
    // What the desktop regards as disposable is never backed up; the user sees where.
    for (const auto& item : SystemItems::describeLeftOut())
        add("always skips", item);
    add("encrypted", task.bEncryMode ? "yes" : "no");
    add("versions", "up to " + std::to_string(task.uiMaxVersion > 0 ? task.uiMaxVersion - 1 : 0) +
                        " older versions per file");
    add("on service", task.serverPath + " (" + GlobalFunction::stringFromFileSize(task.uiRemoteSize) + ")");
    if (task.bMigrateTask)
        add("computer", task.mPCName + " (another computer: `cirrovault task migrate` moves it here)");
    return lines;
}

} // namespace cirrovault::cli

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Json.h"
#include "engine/task/CBackupTask.h"
#include "platform/os/Date.h"

namespace cirrovault::cli {

// How tasks, dates and schedules read on the command line, both ways.
class TaskFormat {
public:
    static std::string stateName(int32_t state);
    static std::string scheduleKindName(int32_t kind); // none, daily, weekly, dates
    // The kind for a name given by the user; nothing when it is not one.
    static std::optional<int32_t> scheduleKind(const std::string& name);
    // Whether the date is the placeholder of "not yet" (a task never backed up).
    static bool isNever(Date date);
    // "2024-05-01 13:05"; "never" for the placeholder.
    static std::string dateText(Date date);
    // "yyyy-mm-dd" or "yyyy-mm-dd HH:MM", checked (no 31 February). endOfDay makes a
    // bare date mean its last minute.
    static std::optional<Date> parseDate(const std::string& text, bool endOfDay);
    // "HH:MM" → minutes after midnight.
    static std::optional<int> parseTime(const std::string& text);
    // "mon".."sun" (or full names, any case) → 1 = Sunday ... 7 = Saturday.
    static std::optional<int> parseWeekday(const std::string& text);
    static std::string weekdayName(int weekday);
    // "1 file", "2 files": a count with its noun.
    static std::string countText(size_t count, const std::string& one, const std::string& many);

    static std::vector<std::string> sources(const CBackupTask& task);
    // The schedule in words: "daily at 02:30", "weekly on Monday at 09:00", ...
    static std::string scheduleText(const CBackupTask& task);
    static Json toJson(const CBackupTask& task, bool details);
    // The lines of `task show`.
    static std::vector<std::string> describe(const CBackupTask& task);
};

} // namespace cirrovault::cli

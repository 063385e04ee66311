#include "TaskInput.h"

#include <cstdlib>
#include <limits.h>

#include "Output.h"
#include "TaskFormat.h"
#include "platform/os/Calendar.h"
#include "platform/os/FileSystem.h"

namespace cirrovault::cli {

std::string existingFolder(const std::string& path) {
    if (path.empty() || !FileSystem::isDirectoryFollowingLinks(path))
        throw CliError(Exit::Usage, text("CliNotAFolder", "{} is not a folder", path.empty() ? "\"\"" : path));
    char resolved[PATH_MAX];
    if (!realpath(path.c_str(), resolved))
        throw CliError(Exit::Usage, text("CliNotAFolder", "{} is not a folder", path));
    return resolved;
}

void TaskInput::check() {
    absoluteSources.clear();
    for (const auto& source : sources)
        absoluteSources.push_back(existingFolder(source));
    if (!schedule.empty()) {
        kind = TaskFormat::scheduleKind(schedule);
        if (!kind)
            throw CliError(Exit::Usage, text("CliBadSchedule",
                                             "unknown schedule \"{}\": use none, daily, weekly or dates", schedule));
    }
    if (!time.empty()) {
        minutes = TaskFormat::parseTime(time);
        if (!minutes)
            throw CliError(Exit::Usage, text("CliBadTime", "bad time \"{}\": use HH:MM, for example 02:30", time));
    }
    if (!weekday.empty()) {
        weekdayNumber = TaskFormat::parseWeekday(weekday);
        if (!weekdayNumber)
            throw CliError(Exit::Usage, text("CliBadWeekday", "bad weekday \"{}\": use mon, tue, ... sun", weekday));
        if (kind && *kind != 2)
            throw CliError(Exit::Usage, text("CliWeekdayOnlyWeekly", "--weekday is for --schedule weekly"));
    }
    if (!from.empty()) {
        fromDate = TaskFormat::parseDate(from, false);
        if (!fromDate)
            throw CliError(Exit::Usage, text("CliBadDate", "bad date \"{}\": use YYYY-MM-DD or \"YYYY-MM-DD HH:MM\"", from));
    }
    if (!until.empty()) {
        untilDate = TaskFormat::parseDate(until, true);
        if (!untilDate)
            throw CliError(Exit::Usage, text("CliBadDate", "bad date \"{}\": use YYYY-MM-DD or \"YYYY-MM-DD HH:MM\"", until));
    }
    if (fromDate && untilDate && *untilDate < *fromDate)
        throw CliError(Exit::Usage, text("CliDatesReversed", "the date range ends ({}) before it begins ({})", until, from));
    if (kind && *kind == 3 && (!fromDate || !untilDate))
        throw CliError(Exit::Usage, text("CliDatesNeedRange", "--schedule dates needs --from and --until"));
    for (const auto& e : excludeExt)
        if (e.empty() || e.find('|') != std::string::npos)
            throw CliError(Exit::Usage, text("CliBadPattern", "bad exclusion pattern \"{}\"", e));
    for (const auto& f : excludeFolder)
        if (f.empty() || f.find('|') != std::string::npos)
            throw CliError(Exit::Usage, text("CliBadPattern", "bad exclusion pattern \"{}\"", f));
}

Date TaskInput::firstRun() const {
    Date now = Date::now();
    DateComponents c = Calendar::components(now);
    if (minutes) {
        c.hour = *minutes / 60;
        c.minute = *minutes % 60;
    } else {
        Date proposed = Calendar::startOfMinute(now).addingTimeInterval(1800);
        c = Calendar::components(proposed);
    }
    c.second = 0;
    if (weekdayNumber) {
        int ahead = (*weekdayNumber - Calendar::weekday(now) + 7) % 7;
        c.day += ahead;
    }
    return Calendar::dateFromComponents(c);
}

} // namespace cirrovault::cli

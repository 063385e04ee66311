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

void readExclusionFile(const std::string& path, std::vector<std::string>& files,
                       std::vector<std::string>& folders) {
    auto content = FileSystem::isDirectoryFollowingLinks(path) ? std::nullopt : FileSystem::readFile(path);
    if (!content)
        throw CliError(Exit::Usage, text("CliExcludeFileUnreadable", "the exclusion file {} cannot be read", path));
    size_t start = 0;
    while (start < content->size()) {
        size_t end = content->find('\n', start);
        if (end == std::string::npos)
            end = content->size();
        std::string line = content->substr(start, end - start);
        start = end + 1;
        // Files written on other systems end their lines in CRLF; trailing blanks are
        // never meant as part of a pattern.
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t'))
            line.pop_back();
        size_t first = line.find_first_not_of(" \t");
        if (first == std::string::npos || line[first] == '#')
            continue;
        line.erase(0, first);
        if (line.back() == '/') {
            line.pop_back();
            folders.push_back(line); // a lone "/" becomes an empty pattern, refused by check()
        } else {
            files.push_back(line);
        }
    }
}

void TaskInput::check() {
    if (!excludeFrom.empty()) {
        readExclusionFile(excludeFrom, excludeExt, excludeFolder);
        excludeFrom.clear(); // read once, even when checked again
    }
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
    // "|" separates the patterns in the service's task list.
    for (const auto* list : {&excludeExt, &excludeFolder})
        for (const auto& e : *list)
            if (e.empty() || e.find('|') != std::string::npos)
                throw CliError(Exit::Usage, text("CliBadPattern", "bad exclusion pattern \"{}\"", e));
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

#include "platform/os/Calendar.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace cirrovault {

DateComponents Calendar::components(Date date) {
    double whole = std::floor(date.timeIntervalSince1970());
    double fraction = date.timeIntervalSince1970() - whole;
    time_t t = static_cast<time_t>(whole);
    struct tm tm {};
    localtime_r(&t, &tm);
    DateComponents c;
    c.year = tm.tm_year + 1900;
    c.month = tm.tm_mon + 1;
    c.day = tm.tm_mday;
    c.hour = tm.tm_hour;
    c.minute = tm.tm_min;
    c.second = tm.tm_sec + fraction;
    c.weekday = tm.tm_wday + 1;
    return c;
}

Date Calendar::dateFromComponents(const DateComponents& c) {
    double wholeSeconds = std::floor(c.second);
    struct tm tm {};
    tm.tm_year = c.year - 1900;
    tm.tm_mon = c.month - 1;
    tm.tm_mday = c.day;
    tm.tm_hour = c.hour;
    tm.tm_min = c.minute;
    tm.tm_sec = static_cast<int>(wholeSeconds);
    tm.tm_isdst = -1;
    time_t t = mktime(&tm);
    return Date(static_cast<double>(t) + (c.second - wholeSeconds));
}

std::string Calendar::rfc3339(Date date) {
    time_t t = static_cast<time_t>(std::floor(date.timeIntervalSince1970()));
    struct tm tm {};
    localtime_r(&t, &tm);
    int offset = static_cast<int>(tm.tm_gmtoff / 60); // minutes east of UTC
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02dT%02d:%02d:%02d%c%02d:%02d", tm.tm_year + 1900,
                  tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, offset < 0 ? '-' : '+',
                  std::abs(offset) / 60, std::abs(offset) % 60);
    return buffer;
}

int Calendar::weekday(Date date) { return components(date).weekday; }

Date Calendar::startOfMinute(Date date) {
    // Every time zone in use is offset from UTC by whole minutes.
    return Date(std::floor(date.timeIntervalSince1970() / 60.0) * 60.0);
}

} // namespace cirrovault

#pragma once

#include <string>

#include "platform/os/Date.h"

namespace cirrovault {

// Calendar fields of a date in the user's local time zone.
struct DateComponents {
    int year = 1970;
    int month = 1;  // 1..12
    int day = 1;    // 1..31
    int hour = 0;   // 0..23
    int minute = 0; // 0..59
    double second = 0; // 0..<60, with the fraction of the date
    int weekday = 5;   // 1 = Sunday ... 7 = Saturday (read only when building a date)
};

// Local Gregorian calendar arithmetic. Building a date from components rolls over
// like the C library does: day 32 of January is 1 February, hour 24 is the next day.
class Calendar {
public:
    static DateComponents components(Date date);
    static Date dateFromComponents(const DateComponents& components);
    static int weekday(Date date); // 1 = Sunday
    // The date with its seconds (and fraction) cut off.
    static Date startOfMinute(Date date);
    // "2026-11-24T21:05:00+01:00": local time with its offset from UTC, whole seconds,
    // so a script elsewhere reads the same instant.
    static std::string rfc3339(Date date);
};

} // namespace cirrovault

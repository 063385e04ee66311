#pragma once

#include "platform/os/Calendar.h"
#include "platform/os/Date.h"

namespace cirrovault::test {

// A moment given by its wall-clock reading in the local time zone.
inline Date localDate(int year, int month, int day, int hour, int minute, double second = 0) {
    DateComponents c;
    c.year = year;
    c.month = month;
    c.day = day;
    c.hour = hour;
    c.minute = minute;
    c.second = second;
    return Calendar::dateFromComponents(c);
}

} // namespace cirrovault::test

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/os/Calendar.h"
#include "platform/os/Date.h"

namespace cirrovault {

// Calendar units to split a date into (the values the engine's masks are made of).
namespace CalendarUnit {
inline constexpr uint32_t Year = 4;
inline constexpr uint32_t Month = 8;
inline constexpr uint32_t Day = 16;
inline constexpr uint32_t Hour = 32;
inline constexpr uint32_t Minute = 64;
inline constexpr uint32_t Second = 128;
inline constexpr uint32_t Weekday = 512;
} // namespace CalendarUnit

// The framework's small helpers: date texts, weekdays, size texts, the encrypted-area
// test, reply parsing and opening web pages. All static; safe from any thread.
class Functions {
public:
    // Date to text and back in the local time zone with a pattern of the letters
    // y M d H h m s a (for example "yyyy-MM-dd HH:mm:ss", "MM/dd/yyyy HH:mm:ss").
    // Other characters are literals; text in single quotes is literal too.
    static std::string stringTransFromedDate(Date date, const std::string& formateType);
    // Accepts one or more digits per numeric field ("2099-1-1 00:00:00"); none when the
    // text does not fit the pattern.
    static std::optional<Date> dayTransFromedString(const std::string& text,
                                                    const std::string& formateType);
    // A date of a server reply brought to "MM/dd/yyyy HH:mm:ss"; accepts that form and
    // "yyyy-MM-dd HH:mm:ss" (a "T" between date and time too). Empty when unreadable.
    static std::string stringFromSvrDate(const std::string& svrDate);

    // Only the units in unitFlags are filled in; the others keep their defaults.
    static DateComponents GetDateComponentsFromNSDateAndNSCalendar(Date date, uint32_t unitFlags);
    static int getDayOfWeekly(Date date); // 1 = Sunday ... 7 = Saturday

    // A size for people: "512 B", "1.50 KB", "2.25 MB", "1.00 GB", "3.10 TB".
    static std::string FormatSizeToString(uint64_t size);

    // True when the server path's first component is the encryption folder's name.
    static bool IsEncryptPath(const std::string& serverPath);

    // The decoded values of every KEY=VALUE pair of a reply ("&" between pairs) whose
    // key is exactly key, in reply order.
    static std::vector<std::string> GetValueArrayByKey(const std::string& key,
                                                       const std::string& stringResource);

    // Opens a web page of the service in the user's browser. A url beginning with "/"
    // is a page of the service's web host; with isAutoLogon it goes through the
    // automatic-logon page with the current session.
    static bool OpenURLLink(const std::string& url, bool isAutoLogon);
};

} // namespace cirrovault

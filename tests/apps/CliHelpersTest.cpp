#include <gtest/gtest.h>
#include <tuple>

#include "Json.h"
#include "TaskFormat.h"
#include "common/TempHome.h"
#include "platform/os/Calendar.h"

namespace cirrovault::cli {
namespace {

TEST(CliDates, DatesAndTimesAreCheckedNotRolledOver) {
    test::TempHome home;
    auto shown = [](const char* text, bool end) {
        DateComponents c = Calendar::components(TaskFormat::parseDate(text, end).value_or(Date(0)));
        return std::to_string(c.year) + "-" + std::to_string(c.month) + "-" + std::to_string(c.day) + " " +
               std::to_string(c.hour) + ":" + std::to_string(c.minute);
    };
    EXPECT_EQ(shown("2024-02-29 13:05", false), "2024-2-29 13:5");
    // A bare date as the end of a range covers the whole day.
    EXPECT_EQ(shown("2024-03-01", true), "2024-3-1 23:59");
    for (const char* bad : {"2023-02-29", "2024-13-01", "2024-04-31", "2024-1-1", "2024-01-01 24:00", "tomorrow", ""})
        EXPECT_FALSE(TaskFormat::parseDate(bad, false)) << bad;
    EXPECT_EQ(std::tuple(TaskFormat::parseTime("02:30"), TaskFormat::parseTime("9:05"), TaskFormat::parseWeekday("Sat"),
                         TaskFormat::parseWeekday("sunday")),
              std::tuple(150, 545, 7, 1));
    for (const char* bad : {"24:00", "12:60", "1230", "12:3", ""})
        EXPECT_FALSE(TaskFormat::parseTime(bad)) << bad;
    EXPECT_FALSE(TaskFormat::parseWeekday("s") || TaskFormat::parseWeekday("funday"));
    EXPECT_EQ(TaskFormat::dateText(Date(0)), "never");
}

TEST(CliJson, TextIsEscapedAndKeysKeepTheirOrder) {
    Json doc = Json::object();
    doc.set("b", "line\n\"quoted\" \\ tab\t\x01").set("a", Json::array().push(1).push(true).push(Json()));
    doc.set("b", 2); // replaces in place
    EXPECT_EQ(doc.dump(), "{\"b\":2,\"a\":[1,true,null]}");
    EXPECT_EQ(Json("x\"\n\x01").dump(), "\"x\\\"\\n\\u0001\"");
    // A file name that is not UTF-8 still gives a valid document.
    EXPECT_EQ(Json("a\xff.txt").dump(), "\"a\xef\xbf\xbd.txt\"");
    EXPECT_EQ(Json(2.0 / 3).dump(), "0.667");
}

} // namespace
} // namespace cirrovault::cli

#include <ctime>

#include <gtest/gtest.h>

#include "platform/os/Calendar.h"
#include "common/ScopedEnv.h"

using namespace cirrovault;

TEST(Calendar, ComponentsRoundTripAndRollOver) {
    DateComponents c;
    c.year = 2024;
    c.month = 1;
    c.day = 32; // rolls into February
    c.hour = 10;
    c.minute = 30;
    c.second = 15.25;
    Date d = Calendar::dateFromComponents(c);
    DateComponents back = Calendar::components(d);
    EXPECT_EQ(back.year, 2024);
    EXPECT_EQ(back.month, 2);
    EXPECT_EQ(back.day, 1);
    EXPECT_EQ(back.hour, 10);
    EXPECT_EQ(back.minute, 30);
    EXPECT_DOUBLE_EQ(back.second, 15.25);
    EXPECT_EQ(back.weekday, 5); // 1 February 2024 was a Thursday (Sunday = 1)

    c.month = 12;
    c.day = 31;
    c.hour = 24; // next day, next year
    back = Calendar::components(Calendar::dateFromComponents(c));
    EXPECT_EQ(back.year, 2025);
    EXPECT_EQ(back.month, 1);
    EXPECT_EQ(back.day, 1);
    EXPECT_EQ(back.hour, 0);
}

TEST(Calendar, StartOfMinuteDropsSecondsAndFraction) {
    DateComponents c;
    c.year = 2025;
    c.month = 6;
    c.day = 15;
    c.hour = 8;
    c.minute = 59;
    c.second = 59.999;
    DateComponents m = Calendar::components(Calendar::startOfMinute(Calendar::dateFromComponents(c)));
    EXPECT_EQ(m.minute, 59);
    EXPECT_EQ(m.hour, 8);
    EXPECT_DOUBLE_EQ(m.second, 0);
}

// The zone is set for the process, so the expected offsets are known; a negative offset
// and one with minutes are where a sign or modulo slip would show.
TEST(Calendar, Rfc3339CarriesTheLocalOffset) {
    Date instant(1732482300.75); // 2024-11-24 21:05:00.75 UTC
    for (auto [zone, expected] : {std::pair{"UTC0", "2024-11-24T21:05:00+00:00"},
                                  std::pair{"EST5", "2024-11-24T16:05:00-05:00"},
                                  std::pair{"IST-5:30", "2024-11-25T02:35:00+05:30"}}) {
        test::ScopedEnv tz("TZ", std::string(zone));
        tzset();
        EXPECT_EQ(Calendar::rfc3339(instant), expected) << zone;
    }
    tzset(); // back to the zone the other tests run in
}

#include <gtest/gtest.h>

#include "platform/os/Calendar.h"

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

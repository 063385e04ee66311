#include <gtest/gtest.h>

#include "platform/os/Calendar.h"
#include "common/LocalDate.h"
#include "common/ScopedEnv.h"

using namespace cirrovault;

// A component out of its range rolls into the next: day 32, hour 24. A negative offset and
// one with minutes show a sign or modulo slip.
TEST(Calendar, ComponentsRoundTripAndRollOverAndRfc3339CarriesTheLocalOffset) {
    using Fields = std::tuple<int, int, int, int, int, int, double>; // y, m, d, h, min, weekday, s
    auto fields = [](const DateComponents& c) {
        return Fields{c.year, c.month, c.day, c.hour, c.minute, c.weekday, c.second};
    };
    DateComponents back = Calendar::components(test::localDate(2024, 1, 32, 10, 30, 15.25));
    EXPECT_EQ(fields(back), (Fields{2024, 2, 1, 10, 30, 5, 15.25})); // a Thursday (Sunday = 1)
    back = Calendar::components(test::localDate(2024, 12, 31, 24, 30));
    EXPECT_EQ(fields(back), (Fields{2025, 1, 1, 0, 30, 4, 0}));

    back = Calendar::components(Calendar::startOfMinute(test::localDate(2025, 6, 15, 8, 59, 59.999)));
    EXPECT_EQ(fields(back), (Fields{2025, 6, 15, 8, 59, 1, 0}));

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

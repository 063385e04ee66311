#include <gtest/gtest.h>

#include "common/ManualClockScope.h"
#include "platform/os/TokenBucket.h"

using namespace cirrovault;

TEST(TokenBucket, PacesTakersWithoutHoardingAndStopsWaitingWhenAsked) {
    test::ManualClockScope scope;
    auto& clock = *scope.clock;
    Date start = clock.now();
    auto since = [&] { return clock.now().timeIntervalSinceDate(start); };
    TokenBucket bucket(1000);
    EXPECT_TRUE(bucket.take(1000, nullptr)); // one second's allowance at once
    EXPECT_EQ(since(), 0.0);
    EXPECT_TRUE(bucket.take(3000, nullptr));
    EXPECT_NEAR(since(), 3.0, 0.11);

    // An idle hour buys one second, not an hour's burst.
    clock.advance(3600);
    start = clock.now();
    EXPECT_TRUE(bucket.take(2000, nullptr));
    EXPECT_NEAR(since(), 1.0, 0.11);

    // A wait told to stop ends within a slice, long before its bytes are paid for.
    int asked = 0;
    start = clock.now();
    EXPECT_FALSE(bucket.take(10000, [&] { return ++asked < 3; }));
    EXPECT_LE(since(), 0.3);
}

#include <gtest/gtest.h>

#include "common/ManualClockScope.h"
#include "platform/framework/TrueProgressCallback.h"

using namespace cirrovault;

namespace {

struct CountingDelegate : TrueProgressDelegate {
    void progressChanged() override { ++calls; }
    int calls = 0;
};

TEST(ProgressTest, ResumedBytesCountForPercentButNotForSpeedAndASingleTransferShowsTheFile) {
    test::ManualClockScope scope;
    ManualClock* clock = scope.clock.get();
    TrueProgressCallback p;
    CountingDelegate delegate;
    p.SetDelegate(&delegate);
    p.setTotalSize(2000);
    p.setDoneSize(1000); // an earlier file of the run
    EXPECT_EQ(p.secondsLeft(), -1);

    p.setThisSize(1000);
    p.setTempSize(200);
    p.setSentSize(200); // found already stored: nothing moved yet
    EXPECT_EQ(std::make_tuple(p.percent(), p.speed(), p.secondsLeft()),
              std::make_tuple(60.0, 0.0, -1.0));

    clock->advance(10); // the time before the first byte moves is not counted
    p.setSentSize(400);
    clock->advance(2);
    p.setSentSize(600);
    // 400 bytes in 2 s; all figures exact in binary.
    EXPECT_EQ(
        std::make_tuple(p.speed(), p.secondsLeft(), p.percent(), p.bytesDone(), delegate.calls),
        std::make_tuple(200.0, 2.0, 80.0, uint64_t{1600}, 3));

    // Going back (the next attempt starts over) adds nothing to the speed.
    p.setSentSize(0);
    EXPECT_DOUBLE_EQ(p.speed(), 200.0);
    p.setSentSize(5000);
    EXPECT_EQ(std::make_pair(p.percent(), p.secondsLeft()), std::make_pair(100.0, 0.0));

    TrueProgressCallback single;
    EXPECT_EQ(single.percent(), 0);
    single.setThisSize(400);
    single.startTiming();
    clock->advance(4);
    single.setSentSize(100);
    EXPECT_EQ(std::make_tuple(single.percent(), single.speed(), single.secondsLeft()),
              std::make_tuple(25.0, 25.0, 12.0)); // exact in binary
}

} // namespace

#include <gtest/gtest.h>

#include "platform/os/Semaphore.h"
#include "platform/os/SystemLog.h"
#include "platform/os/Thread.h"

using namespace cirrovault;

TEST(SemaphoreThread, SignalBeforeWaitIsKeptOnceThreadsRunOnlyWhenStartedAndNoWakeUpIsLost) {
    Semaphore done;
    done.signal();
    done.signal(); // the maximum is 1
    EXPECT_TRUE(done.tryWait());
    EXPECT_FALSE(done.tryWait() || done.waitFor(0.01));

    std::atomic<int> runs{0};
    Thread worker([&] {
        ++runs;
        done.signal();
    });
    EXPECT_FALSE(worker.isStarted() || runs > 0);
    worker.start();
    worker.start(); // a second start is ignored
    done.wait();
    worker.join();
    EXPECT_EQ(runs.load(), 1);
    EXPECT_TRUE(worker.isFinished());

    SystemLog::startCapture();
    Thread thrower([] { throw std::runtime_error("boom"); });
    thrower.start();
    thrower.join(); // logged, not fatal
    EXPECT_TRUE(SystemLog::capturedContains("boom"));
    SystemLog::stopCapture();

    // A producer and a consumer taking turns lose no wake-up: each signal is consumed before
    // the next.
    Semaphore turn, item;
    std::atomic<int> consumed{0};
    constexpr int kRounds = 200;
    Thread consumer([&] {
        for (int i = 0; i < kRounds; ++i, ++consumed) {
            turn.signal();
            item.wait();
        }
    });
    Thread producer([&] {
        for (int i = 0; i < kRounds; ++i) {
            turn.wait();
            item.signal();
        }
    });
    consumer.start();
    producer.start();
    consumer.join();
    producer.join();
    EXPECT_EQ(consumed.load(), kRounds);
}

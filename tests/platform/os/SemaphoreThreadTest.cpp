#include <atomic>
#include <gtest/gtest.h>
#include <vector>

#include "platform/os/Semaphore.h"
#include "platform/os/SystemLog.h"
#include "platform/os/Thread.h"

using namespace cirrovault;

TEST(SemaphoreThread, SignalBeforeWaitIsKeptOnceAndAThreadRunsOnlyWhenStarted) {
    Semaphore done;
    done.signal();
    done.signal(); // the maximum is 1
    EXPECT_TRUE(done.tryWait());
    EXPECT_FALSE(done.tryWait());
    EXPECT_FALSE(done.waitFor(0.01));

    std::atomic<int> runs{0};
    Thread worker([&] {
        ++runs;
        done.signal();
    });
    EXPECT_FALSE(worker.isStarted());
    EXPECT_EQ(runs.load(), 0);
    worker.start();
    worker.start(); // a second start is ignored
    done.wait();
    worker.join();
    EXPECT_EQ(runs.load(), 1);
    EXPECT_TRUE(worker.isFinished());
}

TEST(SemaphoreThread, ExceptionInThreadIsLoggedNotFatal) {
    SystemLog::startCapture();
    Thread worker([] { throw std::runtime_error("boom"); });
    worker.start();
    worker.join();
    EXPECT_TRUE(SystemLog::capturedContains("boom"));
    SystemLog::stopCapture();
}

TEST(SemaphoreThread, ManyProducersOneConsumerLoseNoWakeUp) {
    // Each producer waits for its turn, so every signal is consumed before the next.
    Semaphore turn, item;
    std::atomic<int> consumed{0};
    constexpr int kRounds = 200;
    Thread consumer([&] {
        for (int i = 0; i < kRounds; ++i) {
            turn.signal();
            item.wait();
            ++consumed;
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

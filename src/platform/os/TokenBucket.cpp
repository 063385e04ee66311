#include "platform/os/TokenBucket.h"

#include <algorithm>

#include "platform/os/Clock.h"

namespace cirrovault {

namespace {
constexpr double WaitSlice = 0.1; // seconds between two looks at keepWaiting
// Less is not worth a sleep, and a date in seconds since 1970 cannot tell it anyway.
constexpr double Negligible = 1e-3;
}

TokenBucket::TokenBucket(uint64_t bytesPerSecond)
    : rate_(std::max<uint64_t>(bytesPerSecond, 1)),
      allowance_(static_cast<double>(rate_)),
      last_(Clock::shared().now()) {}

bool TokenBucket::take(uint64_t n, const std::function<bool()>& keepWaiting) {
    double wait = 0;
    Date start;
    {
        std::lock_guard lock(mutex_);
        start = Clock::shared().now();
        // A clock set back gives no allowance rather than a negative one.
        double elapsed = std::max(0.0, start.timeIntervalSinceDate(last_));
        last_ = start;
        allowance_ = std::min(static_cast<double>(rate_), allowance_ + elapsed * static_cast<double>(rate_));
        allowance_ -= static_cast<double>(n);
        // Each taker waits until its own bytes are paid for; the lock is not held
        // meanwhile, so another thread's cancel is seen at once.
        if (allowance_ < 0)
            wait = -allowance_ / static_cast<double>(rate_);
    }
    for (;;) {
        double left = wait - Clock::shared().now().timeIntervalSinceDate(start);
        if (left <= Negligible)
            return true;
        if (keepWaiting && !keepWaiting())
            return false;
        Clock::shared().sleepFor(std::min(left, WaitSlice));
    }
}

} // namespace cirrovault

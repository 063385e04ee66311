#pragma once

#include <memory>

#include "platform/os/Clock.h"

namespace cirrovault::test {

// A manual clock shared for the scope, so that waits and back-offs pass at once; the real
// clock is back afterwards even when an assertion ends the test early.
struct ManualClockScope {
    explicit ManualClockScope(Date start = Date(1'700'000'000.0))
        : clock(std::make_shared<ManualClock>(start)) {
        Clock::setShared(clock);
    }
    ~ManualClockScope() { Clock::setShared(nullptr); }
    std::shared_ptr<ManualClock> clock;
};

} // namespace cirrovault::test

#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>

#include "platform/os/Date.h"

namespace cirrovault {

// Where the engine asks for "now" and for pauses. The real clock reads the system
// time and sleeps; tests install a ManualClock and move time forward instead.
class Clock {
public:
    virtual ~Clock() = default;
    virtual Date now() const;
    virtual void sleepFor(double seconds);

    static Clock& shared();
    // Installs a clock for the whole process; nullptr restores the system clock.
    static void setShared(std::shared_ptr<Clock> clock);
};

// A clock that only moves when told to. A sleep advances the clock by the time slept
// and returns at once, so code that waits minutes runs in microseconds in a test.
class ManualClock : public Clock {
public:
    explicit ManualClock(Date start = Date(1'700'000'000.0));
    Date now() const override;
    void sleepFor(double seconds) override;
    void advance(double seconds);
    void set(Date date);

private:
    mutable std::mutex mutex_;
    Date now_; // guarded by mutex_
};

} // namespace cirrovault

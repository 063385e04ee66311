#include "platform/os/Clock.h"

#include <chrono>
#include <thread>

namespace cirrovault {

namespace {
std::mutex gClockMutex;
std::shared_ptr<Clock> gClock; // guarded by gClockMutex
} // namespace

Date Date::now() { return Clock::shared().now(); }

Date Clock::now() const {
    using namespace std::chrono;
    auto since = system_clock::now().time_since_epoch();
    return Date(duration<double>(since).count());
}

void Clock::sleepFor(double seconds) {
    if (seconds > 0)
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

Clock& Clock::shared() {
    std::lock_guard lock(gClockMutex);
    if (!gClock)
        gClock = std::make_shared<Clock>();
    return *gClock;
}

void Clock::setShared(std::shared_ptr<Clock> clock) {
    std::lock_guard lock(gClockMutex);
    gClock = std::move(clock);
}

ManualClock::ManualClock(Date start) : now_(start) {}

Date ManualClock::now() const {
    std::lock_guard lock(mutex_);
    return now_;
}

void ManualClock::sleepFor(double seconds) {
    advance(seconds > 0 ? seconds : 0);
    std::this_thread::yield();
}

void ManualClock::advance(double seconds) {
    std::lock_guard lock(mutex_);
    now_ = now_.addingTimeInterval(seconds);
}

void ManualClock::set(Date date) {
    std::lock_guard lock(mutex_);
    now_ = date;
}

} // namespace cirrovault

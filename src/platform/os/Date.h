#pragma once

#include <compare>

namespace cirrovault {

// A point in time: seconds since 1970-01-01 00:00:00 UTC. Fractions of a second
// are kept because the schedule rules compare dates to the sub-second.
class Date {
public:
    constexpr Date() = default;
    constexpr explicit Date(double secondsSince1970) : seconds_(secondsSince1970) {}

    // "Now" as the process clock tells it (see Clock), so tests can move time.
    static Date now();

    constexpr double timeIntervalSince1970() const { return seconds_; }
    constexpr double timeIntervalSinceDate(const Date& other) const {
        return seconds_ - other.seconds_;
    }
    constexpr Date addingTimeInterval(double seconds) const { return Date(seconds_ + seconds); }

    constexpr auto operator<=>(const Date&) const = default;

private:
    double seconds_ = 0;
};

} // namespace cirrovault

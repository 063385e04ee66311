#pragma once

#include <cstdint>
#include <functional>
#include <mutex>

#include "platform/os/Date.h"

namespace cirrovault {

// Paces bytes to a rate shared by every thread that takes from it. Up to one second of
// unused allowance is kept, so short pauses are made up for but an idle hour is not.
// Time comes from the shared Clock, so tests move it instead of waiting.
class TokenBucket {
public:
    explicit TokenBucket(uint64_t bytesPerSecond);
    uint64_t bytesPerSecond() const { return rate_; }

    // Waits until n more bytes may go. keepWaiting is asked at least every tenth of a
    // second; when it answers false the wait ends at once and take answers false.
    bool take(uint64_t n, const std::function<bool()>& keepWaiting);

private:
    const uint64_t rate_;
    std::mutex mutex_;
    double allowance_; // bytes that may go now; negative while takers wait. Guarded by mutex_
    Date last_;        // when allowance_ was last brought up to date. Guarded by mutex_
};

} // namespace cirrovault

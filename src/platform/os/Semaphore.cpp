#include "platform/os/Semaphore.h"

#include <chrono>

namespace cirrovault {

void Semaphore::signal() {
    {
        std::lock_guard lock(mutex_);
        count_ = 1;
    }
    cv_.notify_one();
}

void Semaphore::wait() {
    std::unique_lock lock(mutex_);
    cv_.wait(lock, [this] { return count_ > 0; });
    count_ = 0;
}

bool Semaphore::waitFor(double seconds) {
    std::unique_lock lock(mutex_);
    if (!cv_.wait_for(lock, std::chrono::duration<double>(seconds), [this] { return count_ > 0; }))
        return false;
    count_ = 0;
    return true;
}

bool Semaphore::tryWait() {
    std::lock_guard lock(mutex_);
    if (count_ == 0)
        return false;
    count_ = 0;
    return true;
}

} // namespace cirrovault

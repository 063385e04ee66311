#pragma once

#include <condition_variable>
#include <mutex>

namespace cirrovault {

// A counting semaphore with maximum 1 and initial value 0: a signal given while no
// one waits is kept (once), further signals are lost.
class Semaphore {
public:
    void signal();
    void wait();
    // Waits at most the given number of seconds; true when the semaphore was taken.
    bool waitFor(double seconds);
    // Takes the semaphore if it is signalled, without waiting.
    bool tryWait();

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    int count_ = 0; // guarded by mutex_
};

} // namespace cirrovault

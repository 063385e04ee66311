#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

namespace cirrovault {

// Knows which transfer runs on which thread, so another thread can abort it at once.
// A transfer registers a cancel flag for its thread while it runs and checks it at
// every chunk (the local store) or in the libcurl progress callback (network stores).
class CurlHandleController {
public:
    static CurlHandleController& shared();

    // Registers the calling thread's transfer; the returned flag turns true on cancel.
    std::shared_ptr<std::atomic<bool>> beginTransfer();
    void endTransfer();
    // Aborts the transfer running on the thread, if any. True when one was running.
    bool CancelConnection(std::thread::id thread);

private:
    std::mutex mutex_;
    std::map<std::thread::id, std::shared_ptr<std::atomic<bool>>> running_; // guarded by mutex_
};

} // namespace cirrovault

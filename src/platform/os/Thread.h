#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>

namespace cirrovault {

// A thread object that exists before it runs: workers are built unstarted and handed
// to whoever decides when to start them (a dialog controller starts its worker once
// the dialog is up).
class Thread {
public:
    explicit Thread(std::function<void()> body);
    ~Thread(); // joins a started thread; from inside the thread itself it detaches
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    void start();   // a second start does nothing
    void join();    // waits for the end; does nothing if never started or already joined
    bool isStarted() const { return started_; }
    bool isFinished() const { return finished_; }
    bool isCurrent() const; // true when called from this thread
    std::thread::id id() const;

private:
    std::function<void()> body_;
    std::thread thread_; // guarded by mutex_
    mutable std::mutex mutex_;
    std::atomic<bool> started_{false};
    std::atomic<bool> finished_{false};
};

} // namespace cirrovault

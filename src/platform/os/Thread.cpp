#include "platform/os/Thread.h"

#include <exception>

#include "platform/os/SystemLog.h"

namespace cirrovault {

Thread::Thread(std::function<void()> body) : body_(std::move(body)) {}

Thread::~Thread() {
    std::lock_guard lock(mutex_);
    if (!thread_.joinable())
        return;
    if (thread_.get_id() == std::this_thread::get_id())
        thread_.detach();
    else
        thread_.join();
}

void Thread::start() {
    std::lock_guard lock(mutex_);
    if (started_.exchange(true))
        return;
    thread_ = std::thread([this] {
        try {
            if (body_)
                body_();
        } catch (const std::exception& e) {
            SystemLog::write(std::string("Error: uncaught exception in thread: ") + e.what());
        } catch (...) {
            SystemLog::write("Error: uncaught exception in thread");
        }
        finished_ = true;
    });
}

void Thread::join() {
    std::thread::id self = std::this_thread::get_id();
    std::unique_lock lock(mutex_);
    if (!thread_.joinable() || thread_.get_id() == self)
        return;
    std::thread t = std::move(thread_);
    lock.unlock();
    t.join();
}

bool Thread::isCurrent() const {
    std::lock_guard lock(mutex_);
    return thread_.get_id() == std::this_thread::get_id();
}

std::thread::id Thread::id() const {
    std::lock_guard lock(mutex_);
    return thread_.get_id();
}

} // namespace cirrovault

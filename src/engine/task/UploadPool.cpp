#include "engine/task/UploadPool.h"

#include <exception>

#include "platform/os/SystemLog.h"

namespace cirrovault {

UploadPool::UploadPool(size_t threads) : threadCount_(threads == 0 ? 1 : threads) {
    threads_.reserve(threadCount_);
    for (size_t i = 0; i < threadCount_; ++i)
        threads_.emplace_back([this] { work(); });
}

UploadPool::~UploadPool() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        queued_.clear();
    }
    changed_.notify_all();
    for (auto& thread : threads_)
        thread.join();
}

void UploadPool::submit(std::shared_ptr<Job> job) {
    auto entry = std::make_shared<Entry>();
    entry->job = std::move(job);
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return queued_.size() < threadCount_ || stopping_; });
    queued_.push_back(entry);
    ordered_.push_back(std::move(entry));
    lock.unlock();
    changed_.notify_all();
}

std::shared_ptr<UploadPool::Job> UploadPool::takeFinished(bool wait) {
    std::unique_lock lock(mutex_);
    if (ordered_.empty())
        return nullptr;
    if (wait)
        changed_.wait(lock, [this] { return ordered_.front()->finished; });
    if (!ordered_.front()->finished)
        return nullptr;
    auto job = std::move(ordered_.front()->job);
    ordered_.pop_front();
    return job;
}

bool UploadPool::empty() {
    std::lock_guard lock(mutex_);
    return ordered_.empty();
}

void UploadPool::work() {
    for (;;) {
        std::shared_ptr<Entry> entry;
        {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [this] { return !queued_.empty() || stopping_; });
            if (stopping_)
                return;
            entry = std::move(queued_.front());
            queued_.pop_front();
        }
        changed_.notify_all(); // a place in the queue is free
        try {
            entry->job->run();
        } catch (const std::exception&) {
            SystemLog::write("Error: UploadPool: a job failed");
        }
        {
            std::lock_guard lock(mutex_);
            entry->finished = true;
        }
        changed_.notify_all();
    }
}

} // namespace cirrovault

// The pool that sends files beside the upload walk: jobs run side by side and come back
// in the order given, whatever order they end in.
#include <atomic>
#include <condition_variable>
#include <mutex>

#include <gtest/gtest.h>

#include "engine/task/UploadPool.h"

namespace cirrovault {
namespace {

// A job that ends only once released, so the test decides the order of the ends.
class GatedJob : public UploadPool::Job {
public:
    explicit GatedJob(int id) : id(id) {}
    void run() override {
        {
            std::unique_lock lock(mutex_);
            started_ = true;
            changed_.notify_all();
            changed_.wait(lock, [this] { return released_; });
        }
        ran = true;
    }
    void release() {
        std::lock_guard lock(mutex_);
        released_ = true;
        changed_.notify_all();
    }
    void waitStarted() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return started_; });
    }
    const int id;
    std::atomic<bool> ran{false};

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool started_ = false;
    bool released_ = false;
};

TEST(UploadPoolTest, JobsRunSideBySideAndAreTakenBackInTheOrderGiven) {
    UploadPool pool(2);
    auto first = std::make_shared<GatedJob>(1);
    auto second = std::make_shared<GatedJob>(2);
    auto third = std::make_shared<GatedJob>(3);
    pool.submit(first);
    pool.submit(second);
    first->waitStarted();
    second->waitStarted(); // both threads busy at once
    pool.submit(third);     // waits for a thread: the queue has room for it

    second->release();
    third->waitStarted();
    third->release();
    // The later jobs have ended, but the first comes back first.
    EXPECT_EQ(pool.takeFinished(false), nullptr);
    first->release();
    for (int id : {1, 2, 3}) {
        auto job = std::static_pointer_cast<GatedJob>(pool.takeFinished(true));
        ASSERT_NE(job, nullptr);
        EXPECT_EQ(job->id, id);
        EXPECT_TRUE(job->ran);
    }
    EXPECT_EQ(pool.takeFinished(true), nullptr);
    EXPECT_TRUE(pool.empty());
}

} // namespace
} // namespace cirrovault

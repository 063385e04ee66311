#include <atomic>
#include <future>

#include <gtest/gtest.h>

#include "engine/task/UploadPool.h"

namespace cirrovault {
namespace {

// A job that ends only once released, so the test decides the order of the ends.
struct GatedJob : UploadPool::Job {
    explicit GatedJob(int id) : id(id) {}
    void run() override {
        started.set_value();
        released.wait();
        ran = true;
    }
    const int id;
    std::promise<void> started, release;
    std::shared_future<void> hasStarted = started.get_future().share();
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> ran{false};
};

TEST(UploadPoolTest, JobsRunSideBySideAndAreTakenBackInTheOrderGiven) {
    UploadPool pool(2);
    auto first = std::make_shared<GatedJob>(1);
    auto second = std::make_shared<GatedJob>(2);
    auto third = std::make_shared<GatedJob>(3);
    pool.submit(first);
    pool.submit(second);
    first->hasStarted.wait();
    second->hasStarted.wait(); // both threads busy at once
    pool.submit(third);     // waits for a thread: the queue has room for it

    second->release.set_value();
    third->hasStarted.wait();
    third->release.set_value();
    // The later jobs have ended, but the first comes back first.
    EXPECT_EQ(pool.takeFinished(false), nullptr);
    first->release.set_value();
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

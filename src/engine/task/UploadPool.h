#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace cirrovault {

// A few threads that send files while the upload walk decides on the next ones. Jobs
// start in the order given and may end in any order; the walk takes them back in the
// order given, so what it records after each file comes out as one thread would have
// made it. At most as many jobs wait for a thread as there are threads, which bounds
// what the walk runs ahead.
//
// Every wait here is for a job to end or a pool thread to take one up. A job is one
// file's upload: one store call, which ends on the store's own time limits and within
// 50 ms of the run's cancel flag (which SIGTERM and SIGINT set), so the waits end with
// the jobs; a pool thread waits for work only until the pool is dropped.
class UploadPool {
public:
    class Job {
    public:
        virtual ~Job() = default;
        virtual void run() = 0; // on a pool thread; must end soon once the run is cancelled
    };

    explicit UploadPool(size_t threads);
    // Lets the running jobs end and drops those that never started.
    ~UploadPool();
    UploadPool(const UploadPool&) = delete;
    UploadPool& operator=(const UploadPool&) = delete;

    // Queues the job; waits while the queue is full (a thread frees a place as soon as it
    // takes up a job, and every job ends).
    void submit(std::shared_ptr<Job> job);
    // The oldest job not yet taken back, once it has run: waits for it when wait is true,
    // else answers null while it still runs. Null when every job was taken back.
    std::shared_ptr<Job> takeFinished(bool wait);
    bool empty();

private:
    struct Entry {
        std::shared_ptr<Job> job;
        bool finished = false; // guarded by mutex_
    };
    void work();

    std::mutex mutex_;
    std::condition_variable changed_; // a job queued, started or finished, or stopping_
    std::deque<std::shared_ptr<Entry>> queued_;  // guarded by mutex_; not yet started
    std::deque<std::shared_ptr<Entry>> ordered_; // guarded by mutex_; not yet taken back
    bool stopping_ = false;                      // guarded by mutex_
    size_t threadCount_;
    std::vector<std::thread> threads_;
};

} // namespace cirrovault

#pragma once

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "common/EngineSession.h"
#include "engine/manager/CBackupManage.h"
#include "platform/framework/ProgressModeHost.h"
#include "platform/os/Clock.h"

namespace cirrovault::test {

// Time moves only when told. Sleeps of the gated thread (the scheduler) wait until the
// test lets one through; every other sleep moves time on at once and is reported.
class GatedClock : public Clock {
public:
    explicit GatedClock(Date start, std::function<void(double)> onSleep = {})
        : now_(start), onSleep_(std::move(onSleep)) {}
    Date now() const override {
        std::lock_guard lock(mutex_);
        return now_;
    }
    void sleepFor(double seconds) override {
        std::unique_lock lock(mutex_);
        if (!gated_ || !gated_()) {
            now_ = now_.addingTimeInterval(seconds);
            if (onSleep_)
                onSleep_(seconds);
            return;
        }
        uint64_t ticket = ++entered_;
        cv_.notify_all();
        cv_.wait(lock, [&] { return released_ >= ticket; });
    }
    void gateWhen(std::function<bool()> gated) {
        std::lock_guard lock(mutex_);
        gated_ = std::move(gated);
    }
    void waitForSleeper() {
        std::unique_lock lock(mutex_);
        cv_.wait(lock, [&] { return entered_ > released_; });
    }
    // Lets the waiting sleeper go on, seconds later.
    void releaseSleeper(double seconds = 0) {
        std::lock_guard lock(mutex_);
        now_ = now_.addingTimeInterval(seconds);
        ++released_;
        cv_.notify_all();
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    Date now_;
    std::function<void(double)> onSleep_;
    std::function<bool()> gated_;
    uint64_t entered_ = 0;
    uint64_t released_ = 0;
};

// Records the host events as "task:type" (progress refreshes left out), and what a test
// adds; can hold one task's run at one event (by default the start of its first file
// upload) until released.
class HostRecorder : public StowlineBackupManageDelegate {
public:
    bool StowlineBackupManageDelegateFun(CBackupManage*, const std::shared_ptr<CBackupTask>& task,
                                         int32_t type) override {
        std::unique_lock lock(mutex_);
        std::string name = task ? task->name : "";
        if (type != refreshProgressBarDelegate)
            events_.push_back(name + ":" + std::to_string(type));
        cv_.notify_all();
        if (task && name == holdName_ && type == holdType_ && !held_ &&
            (type != refreshProgressBarDelegate || task->bInitUIPrgBar)) {
            held_ = true;
            cv_.notify_all();
            cv_.wait(lock, [&] { return released_; });
        }
        return true;
    }
    void add(std::string event) {
        std::lock_guard lock(mutex_);
        events_.push_back(std::move(event));
    }
    void hold(const std::string& name, int32_t type = refreshProgressBarDelegate) {
        std::lock_guard lock(mutex_);
        holdName_ = name;
        holdType_ = type;
        held_ = released_ = false;
    }
    void waitHeld() {
        std::unique_lock lock(mutex_);
        cv_.wait(lock, [&] { return held_; });
    }
    void release() {
        std::lock_guard lock(mutex_);
        released_ = true;
        cv_.notify_all();
    }
    void waitFor(const std::string& event) {
        std::unique_lock lock(mutex_);
        cv_.wait(lock, [&] { return std::count(events_.begin(), events_.end(), event) > 0; });
    }
    std::vector<std::string> events() {
        std::lock_guard lock(mutex_);
        return events_;
    }
    size_t countOf(const std::string& event) {
        std::lock_guard lock(mutex_);
        return std::count(events_.begin(), events_.end(), event);
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<std::string> events_;
    std::string holdName_;
    int32_t holdType_ = refreshProgressBarDelegate;
    bool held_ = false;
    bool released_ = false;
};

// A manager of computer 7 on a logged-on session, its host recorded, no progress window.
class ManagerSession : public EngineSession {
protected:
    static constexpr uint64_t kPc = 7;
    void SetUp() override {
        EngineSession::SetUp();
        ProgressModeHost::setProvider(nullptr);
        manager_.pcID = kPc;
        manager_.SetDelegate(&host_);
    }
    void TearDown() override {
        for (const auto& list : {manager_.taskList, started_})
            for (const auto& task : list)
                if (auto worker = task->pBackupTaskThread)
                    worker->join();
        ProgressModeHost::setProvider(nullptr);
        EngineSession::TearDown();
    }
    // A daily task of this computer over the folder <name> with two files, due at dating.
    std::shared_ptr<CBackupTask> makeTask(const std::string& name, Date dating) {
        makeFile(name + "/a.txt", "alpha of " + name);
        makeFile(name + "/b.txt", "beta of " + name);
        auto task = std::make_shared<CBackupTask>();
        task->name = name;
        task->pcID = kPc;
        task->serverPath = "\\Backups\\" + name;
        task->localDirList = {home_.file(name)};
        task->taskType = CBackupTask::ScheduleDaily;
        task->mDating = dating;
        return task;
    }

    HostRecorder host_;
    CBackupManage manager_;
    std::vector<std::shared_ptr<CBackupTask>> started_; // runs to join at the end
};

} // namespace cirrovault::test

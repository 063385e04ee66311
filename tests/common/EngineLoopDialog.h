#pragma once

#include <condition_variable>
#include <mutex>
#include <string>

#include "platform/framework/CLoopItem.h"
#include "platform/os/Thread.h"

namespace cirrovault::test {

// A wait dialog that runs its worker like the real one: EnterLoopMode starts the worker
// and returns once the worker has left the loop. Nothing else does anything unless a
// test overrides it.
class LoopDialogStub : public CLoopItem {
public:
    bool EnterLoopMode(Thread* thread, int32_t buttonType) override {
        buttonType_ = buttonType;
        thread->start();
        std::unique_lock lock(loopMutex_);
        leftCv_.wait(lock, [this] { return left_; });
        return true;
    }
    bool LeaveLoopMode(Thread*) override {
        std::lock_guard lock(loopMutex_);
        left_ = true;
        leftCv_.notify_all();
        return true;
    }
    bool IsLoopCancel(Thread*) override { return false; }
    bool IsLoopRetry(Thread*) override { return false; }
    void SetRetry(Thread*, bool) override {}
    void SetLoopType(Thread*, int32_t) override {}
    bool SetLoopMessage(Thread*, const std::string&) override { return true; }
    bool SetScanFileLoopMessage(Thread*, const std::string&, const std::string&,
                                const std::string&) override {
        return true;
    }
    bool EnterLoopModel(Thread*) override { return true; }
    bool IsCancelLoopModel(Thread*) override { return false; }
    bool SetLoopModelMessage(Thread*, const std::string&) override { return true; }
    bool LeaveLoopModel(Thread*) override { return true; }

    int32_t buttonType_ = 0; // as EnterLoopMode was asked, before the worker starts

private:
    std::mutex loopMutex_;
    std::condition_variable leftCv_;
    bool left_ = false; // guarded by loopMutex_
};

} // namespace cirrovault::test

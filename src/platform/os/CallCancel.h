#pragma once

#include <atomic>
#include <memory>

namespace cirrovault {

// The cancel flag of a thread's long call that carries no observer of its own (a logon):
// the network layer ends a request as soon as the flag turns true. Set for a scope;
// scopes nest, each restoring the flag it found.
class CallCancel {
public:
    explicit CallCancel(std::shared_ptr<std::atomic<bool>> flag) : previous_(current()) {
        current() = std::move(flag);
    }
    ~CallCancel() { current() = previous_; }
    CallCancel(const CallCancel&) = delete;
    CallCancel& operator=(const CallCancel&) = delete;

    static bool requested() {
        const auto& flag = current();
        return flag && flag->load();
    }

private:
    static std::shared_ptr<std::atomic<bool>>& current() {
        thread_local std::shared_ptr<std::atomic<bool>> flag;
        return flag;
    }

    std::shared_ptr<std::atomic<bool>> previous_;
};

} // namespace cirrovault

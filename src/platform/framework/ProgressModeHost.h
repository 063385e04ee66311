#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <utility>

#include "platform/framework/TrueProgressCallback.h"
#include "platform/os/Thread.h"

namespace cirrovault {

// The shared progress window as engine code sees it: the main thread hands an unstarted
// worker to EnterProgressMode, which starts it once the window is up and returns when
// the worker has called LeaveProgressModel (or the user cancelled). The worker polls
// IsCancelProgressModel and reports through its window's progress object.
//
// The user-interface layer implements it and installs a provider of its shared
// controller; without one, engine code runs its worker without a window.
class ProgressModeHost {
public:
    virtual ~ProgressModeHost() = default;

    virtual void EnterProgressMode(Thread* thread) = 0;
    virtual void LeaveProgressModel(Thread* thread) = 0;
    virtual bool IsCancelProgressModel(Thread* thread) = 0;
    // The progress object of the thread's window; nullptr when it has none.
    virtual std::shared_ptr<TrueProgressCallback> getProgressInfo(Thread* thread) = 0;

    using Provider = std::function<std::shared_ptr<ProgressModeHost>()>;
    static void setProvider(Provider provider) {
        std::lock_guard lock(providerMutex());
        providerSlot() = std::move(provider);
    }
    // The installed controller, or nullptr when none is installed.
    static std::shared_ptr<ProgressModeHost> shared() {
        Provider provider;
        {
            std::lock_guard lock(providerMutex());
            provider = providerSlot();
        }
        return provider ? provider() : nullptr;
    }

private:
    static std::mutex& providerMutex() {
        static std::mutex mutex;
        return mutex;
    }
    static Provider& providerSlot() { // guarded by providerMutex()
        static Provider provider;
        return provider;
    }
};

} // namespace cirrovault

#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "platform/os/Thread.h"

namespace cirrovault {

// The modal wait dialog as a worker thread sees it. The main thread hands an unstarted
// worker to EnterLoopMode, which starts it and runs the dialog until the worker calls
// LeaveLoopMode. The worker polls Cancel and Retry as flags; the dialog never decides
// anything itself. Every call names the worker thread, which keys the dialog.
//
// Engine code knows the dialog only through this interface; the user-interface layer
// implements it and installs a factory so that the engine can open new dialogs.
class CLoopItem {
public:
    // Button types: which page the dialog shows and which buttons it offers.
    static constexpr int32_t ButtonRetryCancel = 3; // retry countdown: Retry, Cancel
    static constexpr int32_t ButtonScanFiles = 6;   // scan totals: Cancel
    static constexpr int32_t ButtonCancel = 7;      // a message: Cancel

    virtual ~CLoopItem() = default;

    // Main thread: starts the thread and returns when it has left the loop.
    virtual bool EnterLoopMode(Thread* thread, int32_t buttonType) = 0;
    // Worker: ends the dialog (waiting, if need be, until it is actually shown).
    virtual bool LeaveLoopMode(Thread* thread) = 0;
    virtual bool IsLoopCancel(Thread* thread) = 0;
    virtual bool IsLoopRetry(Thread* thread) = 0;
    // The worker clears Retry after acting on it.
    virtual void SetRetry(Thread* thread, bool retryValue) = 0;
    virtual void SetLoopType(Thread* thread, int32_t loopType) = 0;
    // Shown on the message page (type 7) or the retry page (type 3), ignored otherwise.
    virtual bool SetLoopMessage(Thread* thread, const std::string& strMsg) = 0;
    // Running totals of a scan (type 6): formatted size, formatted count, current path.
    virtual bool SetScanFileLoopMessage(Thread* thread, const std::string& totalSourceSize,
                                        const std::string& totalSourceFilesCount,
                                        const std::string& pathFolder) = 0;

    // Entry points for the service layer's own long calls (see
    // PathTreeController::setLoopDelegate): the message page with Cancel.
    virtual bool EnterLoopModel(Thread* thread) = 0;
    virtual bool IsCancelLoopModel(Thread* thread) = 0;
    virtual bool SetLoopModelMessage(Thread* thread, const std::string& loopMessage) = 0;
    virtual bool LeaveLoopModel(Thread* thread) = 0;

    // Opening a new dialog. Without an installed factory there is no dialog (nullptr),
    // and callers run their worker without one.
    using Factory = std::function<std::shared_ptr<CLoopItem>()>;
    static void setFactory(Factory factory) {
        std::lock_guard lock(factoryMutex());
        factorySlot() = std::move(factory);
    }
    static std::shared_ptr<CLoopItem> create() {
        Factory factory;
        {
            std::lock_guard lock(factoryMutex());
            factory = factorySlot();
        }
        return factory ? factory() : nullptr;
    }

private:
    static std::mutex& factoryMutex() {
        static std::mutex mutex;
        return mutex;
    }
    static Factory& factorySlot() { // guarded by factoryMutex()
        static Factory factory;
        return factory;
    }
};

} // namespace cirrovault

#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/framework/ProgressModeHost.h"
#include "platform/framework/TrueProgressCallback.h"
#include "platform/os/Thread.h"
#include "platform/view/ViewBackend.h"
#include "ui/ProgressBarWndController.h"

namespace cirrovault {

// The shared controller of progress windows, one window per worker thread. The main
// thread runs a window modally; the worker reads its progress object, polls Cancel and
// closes the window at its end. Every use of the list holds the controller's lock.
//
// Engine code reaches the shared controller as its ProgressModeHost once the host has
// called installProgressModeHost.
class ProgressBarController final : public ProgressModeHost {
public:
    static ProgressBarController& shareProgressController();
    // Released while a worker still uses it, the controller lives until that worker
    // has let go of it.
    static void releaseProgressController();
    // Makes the shared controller (made on first use) the engine's progress window.
    static void installProgressModeHost();
    // Engine code no longer sees a progress window.
    static void uninstallProgressModeHost();

    explicit ProgressBarController(std::shared_ptr<ViewBackend> backend = nullptr);

    // Main thread: opens the thread's window, starts the worker once the window is up,
    // and returns when the window's modal loop ends.
    void EnterProgressMode(Thread* thread) override;
    // Worker: closes its window, ends the loop and forgets the window.
    void LeaveProgressModel(Thread* thread) override;
    // True for a null thread, with no windows, and when every window is cancelled.
    bool IsCancelProgressModel(Thread* thread) override;
    void SetProgressMessage(Thread* thread, const std::string& progressMessage);
    // The progress object of the thread's window (nullptr when it has none).
    std::shared_ptr<TrueProgressCallback> getProgressInfo(Thread* thread) override;

    std::shared_ptr<ProgressBarWndController> windowOf(Thread* thread);
    size_t windowCount();

private:
    static std::shared_ptr<ProgressBarController> sharedInstance();

    std::shared_ptr<ViewBackend> backend_;
    std::mutex mutex_;
    std::vector<std::shared_ptr<ProgressBarWndController>> windows_; // guarded by mutex_
};

} // namespace cirrovault

#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "platform/framework/TrueProgressCallback.h"
#include "platform/os/Thread.h"
#include "platform/view/ViewBackend.h"

namespace cirrovault {

// One progress window: a bar, the object counts and the time left of a worker's
// progress object, refreshed about once a second by its own thread while it is open.
class ProgressBarWndController {
public:
    // Loads the "ProgressWindow" layout, sets its texts and starts the refresh thread.
    ProgressBarWndController(std::shared_ptr<ViewBackend> backend, Thread* thread);
    ~ProgressBarWndController(); // stops and joins the refresh thread
    ProgressBarWndController(const ProgressBarWndController&) = delete;
    ProgressBarWndController& operator=(const ProgressBarWndController&) = delete;

    // Cancel: aborts the worker's transfer, marks cancelled, closes and ends the loop.
    void cancleAction();
    // Closes the window and ends its modal loop (the worker's normal end).
    void closeWindow();
    void SetMessage(const std::string& message);
    // One refresh of the window from the progress object.
    void refreshProgress();

    bool isCanceled() const { return isCanceled_; }
    Thread* progressThread() const { return progressThread_; }
    const std::shared_ptr<TrueProgressCallback>& progressInfo() const { return progressInfo_; }
    const std::shared_ptr<ViewWindow>& window() const { return window_; }

private:
    void windowShown();
    void windowWillClose();
    void refreshLoop();

    std::shared_ptr<ViewBackend> backend_;
    std::shared_ptr<ViewWindow> window_;
    Thread* const progressThread_; // the worker; not owned
    std::shared_ptr<TrueProgressCallback> progressInfo_ = std::make_shared<TrueProgressCallback>();
    std::atomic<bool> isCanceled_{false};
    std::atomic<bool> started_{false};
    std::atomic<bool> stopRefresh_{false};
    std::mutex waitMutex_;
    std::condition_variable waitCv_; // wakes the refresh thread's pauses early
    Thread refreshThread_;
};

} // namespace cirrovault

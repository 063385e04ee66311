#include "ui/ProgressBarController.h"

#include <algorithm>
#include <exception>

#include "platform/os/SystemLog.h"

namespace cirrovault {

namespace {
std::mutex sharedMutex;
std::shared_ptr<ProgressBarController> sharedController; // guarded by sharedMutex
} // namespace

std::shared_ptr<ProgressBarController> ProgressBarController::sharedInstance() {
    std::lock_guard lock(sharedMutex);
    if (!sharedController)
        sharedController = std::make_shared<ProgressBarController>();
    return sharedController;
}

ProgressBarController& ProgressBarController::shareProgressController() {
    return *sharedInstance();
}

void ProgressBarController::releaseProgressController() {
    std::lock_guard lock(sharedMutex);
    sharedController.reset();
}

void ProgressBarController::installProgressModeHost() {
    ProgressModeHost::setProvider(
        []() -> std::shared_ptr<ProgressModeHost> { return sharedInstance(); });
}

void ProgressBarController::uninstallProgressModeHost() {
    ProgressModeHost::setProvider(nullptr);
}

ProgressBarController::ProgressBarController(std::shared_ptr<ViewBackend> backend)
    : backend_(std::move(backend)) {}

void ProgressBarController::EnterProgressMode(Thread* thread) {
    try {
        if (!thread)
            return;
        auto window = std::make_shared<ProgressBarWndController>(
            backend_ ? backend_ : ViewBackend::shared(), thread);
        {
            std::lock_guard lock(mutex_);
            windows_.push_back(window);
        }
        (backend_ ? backend_ : ViewBackend::shared())->runModal(window->window());
    } catch (const std::exception&) {
        SystemLog::write("Error:EnterProgressMode");
    }
}

std::shared_ptr<ProgressBarWndController> ProgressBarController::windowOf(Thread* thread) {
    std::lock_guard lock(mutex_);
    for (const auto& window : windows_)
        if (window->progressThread() == thread)
            return window;
    return nullptr;
}

size_t ProgressBarController::windowCount() {
    std::lock_guard lock(mutex_);
    return windows_.size();
}

void ProgressBarController::LeaveProgressModel(Thread* thread) {
    try {
        std::shared_ptr<ProgressBarWndController> window;
        {
            std::lock_guard lock(mutex_);
            auto found = std::find_if(windows_.begin(), windows_.end(),
                                      [thread](const auto& w) { return w->progressThread() == thread; });
            if (found == windows_.end())
                return;
            window = *found;
            windows_.erase(found);
        }
        window->closeWindow();
    } catch (const std::exception&) {
        SystemLog::write("Error:LeaveProgressModel");
    }
}

bool ProgressBarController::IsCancelProgressModel(Thread* thread) {
    try {
        if (!thread)
            return true;
        std::lock_guard lock(mutex_);
        // Any open window counts, whichever thread it belongs to.
        return std::all_of(windows_.begin(), windows_.end(),
                           [](const auto& w) { return w->isCanceled(); });
    } catch (const std::exception&) {
        SystemLog::write("Error:IsCancelProgressModel");
        return true;
    }
}

void ProgressBarController::SetProgressMessage(Thread* thread, const std::string& progressMessage) {
    try {
        if (progressMessage.empty())
            return;
        if (auto window = windowOf(thread))
            window->SetMessage(progressMessage);
    } catch (const std::exception&) {
        SystemLog::write("Error:SetProgressMessage");
    }
}

std::shared_ptr<TrueProgressCallback> ProgressBarController::getProgressInfo(Thread* thread) {
    try {
        auto window = windowOf(thread);
        return window ? window->progressInfo() : nullptr;
    } catch (const std::exception&) {
        SystemLog::write("Error:getProgressInfo");
        return nullptr;
    }
}

} // namespace cirrovault

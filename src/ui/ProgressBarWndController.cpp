#include "ui/ProgressBarWndController.h"

#include <chrono>
#include <cmath>
#include <exception>

#include "platform/framework/CurlHandleController.h"
#include "platform/framework/LoadString.h"
#include "platform/os/SystemLog.h"
#include "platform/view/ViewLayout.h"

namespace cirrovault {

ProgressBarWndController::ProgressBarWndController(std::shared_ptr<ViewBackend> backend, Thread* thread)
    : backend_(backend ? std::move(backend) : ViewBackend::shared()),
      window_(backend_->createWindow(ViewLayout::ProgressWindow)), progressThread_(thread),
      refreshThread_([this] { refreshLoop(); }) {
    window_->setText(ViewOutlet::Title, LoadString::GetValueByKey("OBTitle", "Cirrovault Online Backup"));
    window_->setText(ViewOutlet::CancelTitle, LoadString::GetValueByKey("CancelButtonTitle", "Cancel"));
    window_->setText(ViewOutlet::TotalLabel, LoadString::GetValueByKey("totalObjects", "Total Objects:"));
    window_->setText(ViewOutlet::LeftLabel, LoadString::GetValueByKey("leftObjects", "Left Objects:"));
    window_->setText(ViewOutlet::TimeLeftLabel,
                     LoadString::GetValueByKey("estimateLeftTime", "Estimated Time Left:"));
    std::string units = LoadString::GetValueByKey("fileFolders", "folders files");
    window_->setText(ViewOutlet::TotalUnit, units);
    window_->setText(ViewOutlet::LeftUnit, units);
    window_->setAction(ViewButton::Cancel, [this] { cancleAction(); });
    // The close button leaves the work unwatched, so it cancels as Cancel does.
    window_->setAction(ViewButton::Close, [this] { cancleAction(); });
    window_->setAction(ViewEvent::Shown, [this] { windowShown(); });
    window_->setAction(ViewEvent::WillClose, [this] { windowWillClose(); });
    refreshThread_.start();
}

ProgressBarWndController::~ProgressBarWndController() {
    {
        std::lock_guard lock(waitMutex_);
        stopRefresh_ = true;
    }
    waitCv_.notify_all();
    refreshThread_.join();
}

void ProgressBarWndController::windowShown() {
    // The worker starts only once the window is up, and only once.
    if (progressThread_ && !started_.exchange(true) && !progressThread_->isStarted())
        progressThread_->start();
}

void ProgressBarWndController::windowWillClose() {
    // However the window goes away, the worker must hear that it is not watched.
    if (!isCanceled_.exchange(true))
        progressInfo_->setCancelled(true);
}

void ProgressBarWndController::cancleAction() {
    try {
        if (progressThread_)
            CurlHandleController::shared().CancelConnection(progressThread_->id());
        isCanceled_ = true;
        progressInfo_->setCancelled(true);
        window_->close();
        backend_->abortModal(*window_);
    } catch (const std::exception&) {
        SystemLog::write("Error:ProgressBarWndController:cancleAction()");
    }
}

void ProgressBarWndController::closeWindow() {
    // The worker ended normally: its window is not cancelled.
    window_->setAction(ViewEvent::WillClose, nullptr);
    window_->close();
    backend_->abortModal(*window_);
}

void ProgressBarWndController::SetMessage(const std::string& message) {
    window_->setText(ViewOutlet::Message, message);
}

void ProgressBarWndController::refreshProgress() {
    const TrueProgressCallback& info = *progressInfo_;
    double percent = info.percent();
    if (percent <= 100)
        window_->setValue(ViewOutlet::Bar, percent);
    double seconds = info.secondsLeft();
    if (seconds >= 0) {
        auto s = static_cast<uint64_t>(std::llround(seconds));
        window_->setText(ViewOutlet::TimeLeft,
                         LoadString::Format("TimeFormat", s / 3600, (s % 3600) / 60, s % 60));
    }
    int64_t total = info.totalFiles() + info.totalFolders();
    if (total != 0)
        window_->setText(ViewOutlet::Total, std::to_string(total));
    int64_t left = total - info.doneFolders() - info.doneFiles();
    if (left != 0)
        window_->setText(ViewOutlet::Left, std::to_string(left));
}

void ProgressBarWndController::refreshLoop() {
    try {
        while (!isCanceled_ && !stopRefresh_ && !window_->isClosed()) {
            refreshProgress();
            // Ten short pauses: about one refresh a second, yet Cancel is seen at once.
            std::unique_lock lock(waitMutex_);
            for (int i = 0; i < 10 && !isCanceled_ && !stopRefresh_; ++i)
                waitCv_.wait_for(lock, std::chrono::milliseconds(100));
        }
        progressInfo_->setCancelled(true);
    } catch (const std::exception&) {
        SystemLog::write("Error:ProgressBarWndController:refreshProgress()");
    }
}

} // namespace cirrovault

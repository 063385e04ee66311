#include "ui/CDownloadFileController.h"

#include <exception>

#include "platform/framework/CurlHandleController.h"
#include "platform/framework/Functions.h"
#include "platform/framework/LoadString.h"
#include "platform/os/SystemLog.h"

namespace cirrovault {

CDownloadFileController::CDownloadFileController(std::shared_ptr<ViewBackend> backend)
    : backend_(backend ? std::move(backend) : ViewBackend::shared()) {}

CDownloadFileController::~CDownloadFileController() {
    pDownloadProgBar->SetDelegate(nullptr);
    if (auto view = this->view())
        view->setDelegate(nullptr);
}

bool CDownloadFileController::EnterProgressMode(Thread* thread) {
    try {
        std::shared_ptr<CDownloadFileView> view;
        {
            std::lock_guard lock(mutex_);
            if (!thread || view_)
                return true;
            view_ = std::make_shared<CDownloadFileView>(backend_);
            view = view_;
        }
        pDownloadProgBar->SetDelegate(this);
        view->setDelegate(this);
        setDelegate(view.get());
        redraw(); // the window opens with the target and figures already known
        runningThread_ = thread;
        thread->start();
        backend_->runModal(view->window());
        pDownloadThread = thread;
        return true;
    } catch (const std::exception&) {
        SystemLog::write("Error:CDownloadFileController:EnterProgressMode()");
        return true;
    }
}

void CDownloadFileController::LeaveProgressModel(Thread* thread) {
    try {
        if (!thread)
            return;
        if (auto view = this->view())
            view->endModalAndClose();
    } catch (const std::exception&) {
        SystemLog::write("Error:CDownloadFileController:LeaveProgressModel()");
    }
}

bool CDownloadFileController::IsCancelDownload(Thread* thread) {
    if (!thread)
        return false;
    auto view = this->view();
    return view && (view->bClose || view->bCancle);
}

bool CDownloadFileController::StopDownloadFileDelegateFun(CDownloadFileView&) {
    try {
        if (Thread* worker = runningThread_.load())
            CurlHandleController::shared().CancelConnection(worker->id());
        pDownloadProgBar->setBClickedCancel(true);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

void CDownloadFileController::progressChanged() {
    RefreshProgressInfo(*pDownloadProgBar);
}

void CDownloadFileController::RefreshProgressInfo(const TrueProgressCallback& progress) {
    try {
        auto rate = static_cast<uint64_t>(progress.speed());
        std::string rateText = LoadString::Format("IDS_STRRATE", Functions::FormatSizeToString(rate));
        uint64_t total = iTotalSize;
        uint64_t done = progress.bytesDone();
        uint64_t remaining = total > done ? total - done : 0;
        uint64_t seconds = (rate == 0 || remaining == 0) ? 0 : remaining / rate;
        std::string timeText =
            LoadString::Format("TimeFormat", seconds / 3600, (seconds % 3600) / 60, seconds % 60);
        {
            std::lock_guard lock(mutex_);
            strTransferRate_ = rateText;
            strTimeLeft_ = timeText;
        }
        persent = progress.percent();
        redraw();
    } catch (const std::exception&) {
        SystemLog::write("Error:RefreshProgressInfo()");
    }
}

void CDownloadFileController::refreshPrgbarDelegate() {
    try {
        {
            std::lock_guard lock(mutex_);
            strTimeLeft_.clear();
            strTransferRate_.clear();
            strRestoringFile_.clear();
        }
        uint64_t total = iTotalSize;
        persent = total == 0 ? 0.0 : static_cast<double>(iHasDownloadSize * 100 / total);
        redraw();
    } catch (const std::exception&) {
        SystemLog::write("Error:refreshPrgbarDelegate()");
    }
}

void CDownloadFileController::redraw() {
    CDownloadFileDelegate* delegate = delegate_;
    if (delegate && delegate->DownloadFileDelegateFun(*this))
        SystemLog::write("refresh download file progress bar.");
}

void CDownloadFileController::setStrDownPath(const std::string& text) {
    std::lock_guard lock(mutex_);
    strDownPath_ = text;
}

void CDownloadFileController::setStrRestoringFile(const std::string& text) {
    std::lock_guard lock(mutex_);
    strRestoringFile_ = text;
}

std::string CDownloadFileController::strDownPath() const {
    std::lock_guard lock(mutex_);
    return strDownPath_;
}

std::string CDownloadFileController::strTimeLeft() const {
    std::lock_guard lock(mutex_);
    return strTimeLeft_;
}

std::string CDownloadFileController::strTransferRate() const {
    std::lock_guard lock(mutex_);
    return strTransferRate_;
}

std::string CDownloadFileController::strRestoringFile() const {
    std::lock_guard lock(mutex_);
    return strRestoringFile_;
}

std::shared_ptr<CDownloadFileView> CDownloadFileController::view() const {
    std::lock_guard lock(mutex_);
    return view_;
}

} // namespace cirrovault

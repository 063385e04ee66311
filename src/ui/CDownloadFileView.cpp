#include "ui/CDownloadFileView.h"

#include <exception>

#include "platform/framework/LoadString.h"
#include "platform/framework/NimboMessagebox.h"
#include "platform/os/SystemLog.h"
#include "platform/view/ViewLayout.h"
#include "support/GlobalFunction.h"
#include "ui/CDownloadFileController.h"

namespace cirrovault {

CDownloadFileView::CDownloadFileView(std::shared_ptr<ViewBackend> backend)
    : backend_(backend ? std::move(backend) : ViewBackend::shared()),
      window_(backend_->createWindow(ViewLayout::DownloadProgressWindow)) {
    window_->setText(ViewOutlet::Title, LoadString::GetValueByKey("OBTitle", "Cirrovault Online Backup"));
    window_->setText(ViewOutlet::CancelTitle, LoadString::GetValueByKey("CancelButtonTitle", "Cancel"));
    window_->setAction(ViewButton::Cancel, [this] { cancelButton(); });
    window_->setAction(ViewButton::Close, [this] { closeViewButton(); });
    window_->setAction(ViewEvent::WillClose, [this] { windowWillClose(); });
}

bool CDownloadFileView::DownloadFileDelegateFun(CDownloadFileController& controller) {
    try {
        window_->setText(ViewOutlet::DownPath, controller.strDownPath());
        window_->setText(ViewOutlet::TimeLeft, controller.strTimeLeft());
        window_->setText(ViewOutlet::TransferRate, controller.strTransferRate());
        window_->setText(ViewOutlet::RestoringFile, controller.strRestoringFile());
        window_->setValue(ViewOutlet::FilePrgBar, controller.persent);
        return true;
    } catch (const std::exception&) {
        SystemLog::write("Error:DownloadFileDelegateFun()");
        return false;
    }
}

bool CDownloadFileView::stop() {
    CDownloadFileViewDelegate* delegate = delegate_;
    return delegate && delegate->StopDownloadFileDelegateFun(*this);
}

void CDownloadFileView::cancelButton() {
    try {
        std::string question = LoadString::GetValueByKey("IDS_STRCANCELCONFIRM", "");
        if (GlobalFunction::MessageBox(question, MessageboxStyle::YesNo) != MessageboxAnswer::Yes)
            return;
        nType = 1;
        if (!stop())
            SystemLog::write("ErrorLstop download file progress bar.");
        bClose = true;
    } catch (const std::exception&) {
        SystemLog::write("ErrorLstop download file progress bar.");
    }
}

void CDownloadFileView::closeViewButton() {
    try {
        std::string question = LoadString::GetValueByKey("closeDownloadFileView", "");
        if (GlobalFunction::MessageBox(question, MessageboxStyle::YesNo) != MessageboxAnswer::Yes)
            return;
        nType = 2;
        if (!stop())
            SystemLog::write("Error:closeViewButton(). Stop download file progress bar.");
        bClose = true;
        window_->close();
        backend_->abortModal(*window_);
    } catch (const std::exception&) {
        SystemLog::write("Error:closeViewButton(). Stop download file progress bar.");
    }
}

void CDownloadFileView::windowWillClose() {
    // Closed without either button: stop the restore all the same.
    if (nType != 0)
        return;
    try {
        if (!stop())
            SystemLog::write("Error:windowWillClose(). Stop download file progress bar.");
        bClose = true;
    } catch (const std::exception&) {
        SystemLog::write("Error:windowWillClose(). Stop download file progress bar.");
    }
}

void CDownloadFileView::endModalAndClose() {
    nType = 1;
    backend_->abortModal(*window_);
    window_->close();
}

} // namespace cirrovault

#include "ui/NSLoopDialog.h"

#include <exception>

#include "platform/framework/CLoopItem.h"
#include "platform/framework/CurlHandleController.h"
#include "platform/framework/LoadString.h"
#include "platform/os/SystemLog.h"
#include "platform/view/ViewLayout.h"

namespace cirrovault {

namespace {
constexpr int MessagePage = 0;
constexpr int ScanPage = 1;
constexpr int RetryPage = 2;
} // namespace

NSLoopDialog::NSLoopDialog(std::shared_ptr<ViewBackend> backend)
    : backend_(backend ? std::move(backend) : ViewBackend::shared()),
      window_(backend_->createWindow(ViewLayout::LoopDialog)) {
    // The actions capture the dialog, which owns the window and outlives its modal loop.
    window_->setAction(ViewButton::Cancel, [this] { onCancel(); });
    window_->setAction(ViewButton::Retry, [this] { onRetry(); });
    // The close button asks the worker to stop; the worker still ends the loop.
    window_->setAction(ViewButton::Close, [this] { onCancel(); });
    window_->setText(ViewOutlet::Title, LoadString::GetValueByKey("OBTitle", "Cirrovault Online Backup"));
    window_->setText(ViewOutlet::CancelTitle, LoadString::GetValueByKey("CancelButtonTitle", "Cancel"));
}

void NSLoopDialog::initLoopDlg() {
    bCancelable = false;
    bClickRetry = false;
    bNeedHide = false;
    bClosed = false;
    window_->setSpinning(true);
}

void NSLoopDialog::initButton(int32_t buttonType) {
    setLoopButtonType(buttonType);
}

void NSLoopDialog::setLoopButtonType(int32_t buttonType) {
    switch (buttonType) {
    case CLoopItem::ButtonScanFiles:
        nButtonType = buttonType;
        window_->setText(ViewOutlet::ScanFileStr, LoadString::GetValueByKey("WaitForScanningFiles", ""));
        SelectTabView(ScanPage);
        break;
    case CLoopItem::ButtonCancel:
        nButtonType = buttonType;
        SelectTabView(MessagePage);
        break;
    case CLoopItem::ButtonRetryCancel:
        nButtonType = buttonType;
        SelectTabView(RetryPage);
        break;
    default:
        break;
    }
}

void NSLoopDialog::onCancel() {
    try {
        bCancelable = true;
        // A worker blocked in a transfer would only see the flag after it; abort it now.
        if (Thread* worker = thread.load())
            CurlHandleController::shared().CancelConnection(worker->id());
    } catch (const std::exception&) {
        SystemLog::write("Error:NSLoopDialog:onCancel()");
    }
}

void NSLoopDialog::onRetry() {
    bClickRetry = true;
}

void NSLoopDialog::SetMsgString(const std::string& msg) {
    try {
        int32_t type = nButtonType;
        if (type == CLoopItem::ButtonCancel)
            window_->setText(ViewOutlet::LogOnStr, msg);
        else if (type == CLoopItem::ButtonRetryCancel)
            window_->setText(ViewOutlet::RetryLogonStr, msg);
    } catch (const std::exception&) {
        SystemLog::write("Error:NSLoopDialog:SetMsgString()");
    }
}

void NSLoopDialog::SetScanFileLoopMessage(const std::string& totalSourceSize,
                                          const std::string& totalSourceFilesCount,
                                          const std::string& pathFolder) {
    try {
        window_->setText(ViewOutlet::TotalSourceFilePath, pathFolder);
        window_->setText(ViewOutlet::TotalSourceSize, totalSourceSize);
        window_->setText(ViewOutlet::TotalFilesCount, totalSourceFilesCount);
    } catch (const std::exception&) {
        SystemLog::write("Error:NSLoopDialog:SetScanFileLoopMessage()");
    }
}

void NSLoopDialog::SelectTabView(int index) {
    window_->selectTab(index);
}

int NSLoopDialog::GetSelectedTabViewIndex() const {
    return window_->selectedTab();
}

void NSLoopDialog::endModalLoopAndCloseView() {
    try {
        window_->setSpinning(false);
        backend_->abortModal(*window_);
        window_->close();
    } catch (const std::exception&) {
        SystemLog::write("Error:NSLoopDialog:endModalLoopAndCloseView()");
    }
}

} // namespace cirrovault

#include "ui/LoopDlgController.h"

#include <algorithm>
#include <exception>

#include "platform/framework/PathTreeController.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/Clock.h"
#include "platform/os/SystemLog.h"

namespace cirrovault {

LoopDlgController::LoopDlgController(std::shared_ptr<ViewBackend> backend, bool registerWithPathTree)
    : backend_(backend ? std::move(backend) : ViewBackend::shared()) {
    if (!registerWithPathTree)
        return;
    try {
        TransferApiUtil::sharePathTreeController().setLoopDelegate(this);
        registered_ = true;
    } catch (const std::exception&) {
        SystemLog::write("Error:LoopDlgController:init()");
    }
}

LoopDlgController::~LoopDlgController() {
    // The tree keeps a plain pointer: never leave it pointing at a dead dialog.
    if (!registered_)
        return;
    try {
        TransferApiUtil::sharePathTreeController().setLoopDelegate(nullptr);
    } catch (const std::exception&) {
        SystemLog::write("Error:LoopDlgController:dealloc()");
    }
}

void LoopDlgController::installFactory(std::shared_ptr<ViewBackend> backend) {
    CLoopItem::setFactory([backend]() -> std::shared_ptr<CLoopItem> {
        return std::make_shared<LoopDlgController>(backend);
    });
}

bool LoopDlgController::addLoopThreadInfo(const std::shared_ptr<LoopInfo>& info) {
    if (!info || !info->pThread) {
        SystemLog::write("Error:LoopDlgController:addLoopThreadInfo()");
        return false;
    }
    std::lock_guard lock(mutex_);
    threadArray.push_back(info);
    return true;
}

bool LoopDlgController::RemoveLoopThreadInfo(Thread* thread) {
    if (!thread) {
        SystemLog::write("Error:LoopDlgController:RemoveLoopThreadInfo()");
        return false;
    }
    std::lock_guard lock(mutex_);
    auto found = std::find_if(threadArray.begin(), threadArray.end(),
                              [thread](const auto& info) { return info->pThread == thread; });
    if (found == threadArray.end())
        return false;
    threadArray.erase(found);
    return true;
}

std::shared_ptr<LoopInfo> LoopDlgController::getLoopThreadInfo(Thread* thread) {
    if (!thread) {
        SystemLog::write("Error:LoopDlgController:getLoopThreadInfo()");
        return nullptr;
    }
    std::lock_guard lock(mutex_);
    for (const auto& info : threadArray)
        if (info->pThread == thread)
            return info;
    return nullptr;
}

size_t LoopDlgController::loopThreadCount() const {
    std::lock_guard lock(mutex_);
    return threadArray.size();
}

std::shared_ptr<NSLoopDialog> LoopDlgController::dialogOf(Thread* thread) {
    auto info = getLoopThreadInfo(thread);
    return info ? info->pDlg : nullptr;
}

bool LoopDlgController::EnterLoopMode(Thread* thread, int32_t buttonType) {
    std::shared_ptr<NSLoopDialog> dialog;
    try {
        if (!thread) {
            SystemLog::write("Error:LoopDlgController:addLoopThreadInfo()");
            return false;
        }
        if (getLoopThreadInfo(thread))
            return true; // one dialog per thread

        dialog = std::make_shared<NSLoopDialog>(backend_);
        dialog->nButtonType = buttonType;
        dialog->thread = thread;
        dialog->initLoopDlg();
        dialog->initButton(buttonType);
        auto info = std::make_shared<LoopInfo>();
        info->pThread = thread;
        info->pDlg = dialog;
        info->nType = buttonType;
        addLoopThreadInfo(info);

        thread->start();
        backend_->runModal(dialog->window());

        // The worker marks the dialog closed just before it ends the loop; give a loop
        // ended some other way a moment to catch up.
        for (int i = 0; i < 3 && !dialog->bClosed; ++i)
            Clock::shared().sleepFor(1.0);
        info->bDialogClosed = dialog->bClosed;

        RemoveLoopThreadInfo(thread);
        SystemLog::write("Rempve loop dialog.");
        return true;
    } catch (const std::exception&) {
        SystemLog::write("Error:EnterLoopMode");
        // A worker waiting for this dialog to become modal must not wait forever.
        if (dialog)
            dialog->window()->close();
        if (thread)
            RemoveLoopThreadInfo(thread);
        return true;
    }
}

bool LoopDlgController::LeaveLoopMode(Thread* thread) {
    try {
        auto dialog = dialogOf(thread);
        if (!dialog)
            return false;
        // The worker may finish before the main thread has entered the modal loop;
        // ending the loop then would end nothing, so wait until it is up.
        backend_->waitUntilModal(*dialog->window());
        dialog->bClosed = true;
        dialog->endModalLoopAndCloseView();
        SystemLog::write("LeaveLoopMode");
        return true;
    } catch (const std::exception&) {
        SystemLog::write("Error:LeaveLoopMode");
        return false;
    }
}

bool LoopDlgController::IsLoopCancel(Thread* thread) {
    try {
        auto dialog = dialogOf(thread);
        return dialog && dialog->bCancelable;
    } catch (const std::exception&) {
        SystemLog::write("Error:IsLoopCancel");
        return false;
    }
}

bool LoopDlgController::IsLoopRetry(Thread* thread) {
    try {
        auto dialog = dialogOf(thread);
        return dialog && dialog->bClickRetry;
    } catch (const std::exception&) {
        SystemLog::write("Error:IsLoopRetry");
        return false;
    }
}

void LoopDlgController::SetRetry(Thread* thread, bool retryValue) {
    try {
        if (auto dialog = dialogOf(thread))
            dialog->bClickRetry = retryValue;
    } catch (const std::exception&) {
        SystemLog::write("Error:SetRetry");
    }
}

void LoopDlgController::SetLoopType(Thread* thread, int32_t loopType) {
    try {
        if (auto dialog = dialogOf(thread))
            dialog->setLoopButtonType(loopType);
    } catch (const std::exception&) {
        SystemLog::write("Error:SetLoopType");
    }
}

bool LoopDlgController::SetLoopMessage(Thread* thread, const std::string& strMsg) {
    try {
        if (!thread)
            return false;
        if (auto dialog = dialogOf(thread))
            dialog->SetMsgString(strMsg);
        return true;
    } catch (const std::exception&) {
        SystemLog::write("Error:SetLoopMessage");
        return false;
    }
}

bool LoopDlgController::SetScanFileLoopMessage(Thread* thread, const std::string& totalSourceSize,
                                               const std::string& totalSourceFilesCount,
                                               const std::string& pathFolder) {
    try {
        if (!thread)
            return false;
        if (auto dialog = dialogOf(thread))
            dialog->SetScanFileLoopMessage(totalSourceSize, totalSourceFilesCount, pathFolder);
        return true;
    } catch (const std::exception&) {
        SystemLog::write("Error:SetScanFileLoopMessage");
        return false;
    }
}

bool LoopDlgController::EnterLoopModel(Thread* thread) {
    return EnterLoopMode(thread, CLoopItem::ButtonCancel);
}

bool LoopDlgController::IsCancelLoopModel(Thread* thread) {
    return IsLoopCancel(thread);
}

bool LoopDlgController::SetLoopModelMessage(Thread* thread, const std::string& loopMessage) {
    return SetLoopMessage(thread, loopMessage);
}

bool LoopDlgController::LeaveLoopModel(Thread* thread) {
    return LeaveLoopMode(thread);
}

} // namespace cirrovault

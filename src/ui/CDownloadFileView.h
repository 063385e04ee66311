#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "platform/view/ViewBackend.h"
#include "ui/CDownloadFileDelegate.h"
#include "ui/CDownloadFileViewDelegate.h"

namespace cirrovault {

// The restore window: the path, time left, rate and current file, and a bar. Cancel
// and the close button ask the user first; only a yes stops the restore.
class CDownloadFileView : public CDownloadFileDelegate {
public:
    // Loads the "DownloadProgressWindow" layout.
    explicit CDownloadFileView(std::shared_ptr<ViewBackend> backend);

    bool DownloadFileDelegateFun(CDownloadFileController& controller) override;

    void cancelButton();
    void closeViewButton();
    void windowWillClose();
    // Ends the modal loop and closes the window (the worker's end).
    void endModalAndClose();

    void setDelegate(CDownloadFileViewDelegate* delegate) { delegate_ = delegate; }
    const std::shared_ptr<ViewWindow>& window() const { return window_; }

    std::atomic<int32_t> nType{0}; // 1 left by the worker or Cancel, 2 by the close button
    std::atomic<bool> bClose{false};
    std::atomic<bool> bCancle{false};

private:
    bool stop();

    std::shared_ptr<ViewBackend> backend_;
    std::shared_ptr<ViewWindow> window_;
    std::atomic<CDownloadFileViewDelegate*> delegate_{nullptr}; // not owned
};

} // namespace cirrovault

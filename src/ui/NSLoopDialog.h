#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/os/Thread.h"
#include "platform/view/ViewBackend.h"
#include "platform/view/ViewWindow.h"

namespace cirrovault {

// The wait dialog's window controller. The main thread runs its window modally; the
// worker writes its texts and reads its flags. The flags are the only way the user's
// Cancel and Retry reach the worker: the dialog decides nothing itself.
class NSLoopDialog {
public:
    // Loads the "LoopDialog" layout from the back end.
    explicit NSLoopDialog(std::shared_ptr<ViewBackend> backend);

    // Clears the flags and starts the spinner (when the window loads).
    void initLoopDlg();
    void initButton(int32_t buttonType);
    // 6 → scan page; 7 → message page; 3 → retry page; other values change nothing.
    void setLoopButtonType(int32_t buttonType);

    void onCancel(); // also aborts the network transfer running on the dialog's thread
    void onRetry();

    // The message page (type 7) or the retry page (type 3); ignored for other types.
    void SetMsgString(const std::string& msg);
    void SetScanFileLoopMessage(const std::string& totalSourceSize,
                                const std::string& totalSourceFilesCount,
                                const std::string& pathFolder);
    void SelectTabView(int index);
    int GetSelectedTabViewIndex() const;
    // Stops the spinner, ends the modal loop and closes the window.
    void endModalLoopAndCloseView();

    const std::shared_ptr<ViewWindow>& window() const { return window_; }

    std::atomic<int32_t> nButtonType{0};
    std::atomic<bool> bCancelable{false}; // the user pressed Cancel
    std::atomic<bool> bClickRetry{false}; // the user pressed Retry; the worker clears it
    std::atomic<bool> bNeedHide{false};
    std::atomic<bool> bClosed{false};     // the worker has ended the loop
    std::atomic<Thread*> thread{nullptr}; // the worker; not owned

private:
    std::shared_ptr<ViewBackend> backend_;
    std::shared_ptr<ViewWindow> window_;
};

} // namespace cirrovault

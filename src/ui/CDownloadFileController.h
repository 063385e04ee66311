#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "platform/framework/TrueProgressCallback.h"
#include "platform/os/Thread.h"
#include "platform/view/ViewBackend.h"
#include "ui/CDownloadFileView.h"
#include "ui/CDownloadFileViewDelegate.h"

namespace cirrovault {

// The restore window's controller: turns the restore's progress object into a rate, a
// time left and a percentage for its view, and carries the user's stop to the worker.
class CDownloadFileController : public TrueProgressDelegate, public CDownloadFileViewDelegate {
public:
    explicit CDownloadFileController(std::shared_ptr<ViewBackend> backend = nullptr);
    ~CDownloadFileController() override;
    CDownloadFileController(const CDownloadFileController&) = delete;
    CDownloadFileController& operator=(const CDownloadFileController&) = delete;

    // Main thread: opens the view, starts the worker and runs the view modally.
    bool EnterProgressMode(Thread* thread);
    // Worker: ends the view's modal loop and closes it.
    void LeaveProgressModel(Thread* thread);
    bool IsCancelDownload(Thread* thread);
    bool StopDownloadFileDelegateFun(CDownloadFileView& view) override;
    void RefreshProgressInfo(const TrueProgressCallback& progress);
    void refreshPrgbarDelegate();
    void progressChanged() override; // the progress object's notice

    void setDelegate(CDownloadFileDelegate* delegate) { delegate_ = delegate; }
    void setStrDownPath(const std::string& text);
    void setStrRestoringFile(const std::string& text);
    std::string strDownPath() const;
    std::string strTimeLeft() const;
    std::string strTransferRate() const;
    std::string strRestoringFile() const;
    std::shared_ptr<CDownloadFileView> view() const;

    const std::shared_ptr<TrueProgressCallback> pDownloadProgBar = std::make_shared<TrueProgressCallback>();
    std::atomic<uint64_t> iTotalSize{0};
    std::atomic<uint64_t> iHasDownloadSize{0};
    std::atomic<double> persent{0};
    std::atomic<Thread*> pDownloadThread{nullptr}; // not owned

private:
    void redraw();

    std::shared_ptr<ViewBackend> backend_;
    std::atomic<CDownloadFileDelegate*> delegate_{nullptr}; // not owned
    std::atomic<Thread*> runningThread_{nullptr};          // the worker while its view is up
    mutable std::mutex mutex_;
    std::shared_ptr<CDownloadFileView> view_; // guarded by mutex_
    std::string strDownPath_;                 // guarded by mutex_
    std::string strTimeLeft_;                 // guarded by mutex_
    std::string strTransferRate_;             // guarded by mutex_
    std::string strRestoringFile_;            // guarded by mutex_
};

} // namespace cirrovault

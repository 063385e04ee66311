#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/framework/CLoopItem.h"
#include "platform/view/ViewBackend.h"
#include "ui/LoopInfo.h"

namespace cirrovault {

// The modal wait dialog that worker threads drive: the main thread starts the worker
// and runs the dialog; the worker sets its texts, polls Cancel and Retry and ends it.
// One dialog per worker thread, found by the thread's identity.
class LoopDlgController : public CLoopItem {
public:
    // Registers itself as the service tree's loop delegate, so the framework's own
    // long calls can use the same dialog; registerWithPathTree = false skips that.
    explicit LoopDlgController(std::shared_ptr<ViewBackend> backend = nullptr,
                               bool registerWithPathTree = true);
    ~LoopDlgController() override;
    LoopDlgController(const LoopDlgController&) = delete;
    LoopDlgController& operator=(const LoopDlgController&) = delete;

    // Makes LoopDlgController the dialog that CLoopItem::create() opens.
    static void installFactory(std::shared_ptr<ViewBackend> backend = nullptr);

    bool EnterLoopMode(Thread* thread, int32_t buttonType) override;
    bool LeaveLoopMode(Thread* thread) override;
    bool IsLoopCancel(Thread* thread) override;
    bool IsLoopRetry(Thread* thread) override;
    void SetRetry(Thread* thread, bool retryValue) override;
    void SetLoopType(Thread* thread, int32_t loopType) override;
    bool SetLoopMessage(Thread* thread, const std::string& strMsg) override;
    bool SetScanFileLoopMessage(Thread* thread, const std::string& totalSourceSize,
                                const std::string& totalSourceFilesCount,
                                const std::string& pathFolder) override;

    bool EnterLoopModel(Thread* thread) override;
    bool IsCancelLoopModel(Thread* thread) override;
    bool SetLoopModelMessage(Thread* thread, const std::string& loopMessage) override;
    bool LeaveLoopModel(Thread* thread) override;

    bool addLoopThreadInfo(const std::shared_ptr<LoopInfo>& info);
    bool RemoveLoopThreadInfo(Thread* thread);
    std::shared_ptr<LoopInfo> getLoopThreadInfo(Thread* thread);
    size_t loopThreadCount() const;

private:
    std::shared_ptr<NSLoopDialog> dialogOf(Thread* thread);

    std::shared_ptr<ViewBackend> backend_;
    bool registered_ = false;
    // The main thread adds and removes while workers look up, so the list has a lock.
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<LoopInfo>> threadArray; // guarded by mutex_
};

} // namespace cirrovault

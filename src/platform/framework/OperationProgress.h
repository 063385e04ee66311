#pragma once

#include <atomic>
#include <cstdint>

namespace cirrovault {

// Progress and cancel marks of a multi-path operation (delete, copy, move).
class OperationProgress {
public:
    virtual ~OperationProgress() = default;
    void setCancelled(bool cancelled) { cancelled_ = cancelled; }
    bool IsCancelled() const { return cancelled_; }
    void setTotalItems(int64_t n) { totalItems_ = n; }
    void itemDone() { ++doneItems_; }
    int64_t totalItems() const { return totalItems_; }
    int64_t doneItems() const { return doneItems_; }

private:
    std::atomic<bool> cancelled_{false};
    std::atomic<int64_t> totalItems_{0};
    std::atomic<int64_t> doneItems_{0};
};

} // namespace cirrovault

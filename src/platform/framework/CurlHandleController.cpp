#include "platform/framework/CurlHandleController.h"

namespace cirrovault {

CurlHandleController& CurlHandleController::shared() {
    static CurlHandleController controller;
    return controller;
}

std::shared_ptr<std::atomic<bool>> CurlHandleController::beginTransfer() {
    auto flag = std::make_shared<std::atomic<bool>>(false);
    std::lock_guard lock(mutex_);
    running_[std::this_thread::get_id()] = flag;
    return flag;
}

void CurlHandleController::endTransfer() {
    std::lock_guard lock(mutex_);
    running_.erase(std::this_thread::get_id());
}

bool CurlHandleController::CancelConnection(std::thread::id thread) {
    std::lock_guard lock(mutex_);
    auto it = running_.find(thread);
    if (it == running_.end())
        return false;
    *it->second = true;
    return true;
}

} // namespace cirrovault

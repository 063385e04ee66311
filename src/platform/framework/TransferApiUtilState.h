#pragma once

// The private state of the service session, shared by the TransferApiUtil*.cpp files
// that implement it. Nothing else includes this header.

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "platform/framework/CachedPathTree.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/store/StoreBackend.h"

namespace cirrovault {

struct TransferApiUtil::State {
    mutable std::mutex mutex;
    std::shared_ptr<StoreBackend> backend; // guarded by mutex
    std::string serviceURL;                // guarded by mutex
    std::string userName;                  // guarded by mutex
    std::string passWord;                  // guarded by mutex; never logged
    std::string sessionID;                 // guarded by mutex
    std::string customerID;                // guarded by mutex
    // Has its own lock; the pointer itself never changes.
    const std::shared_ptr<CachedPathTree> tree = std::make_shared<CachedPathTree>();
    // Something was asked to change on the store since the last Flush.
    std::atomic<bool> unflushed{false};
};

} // namespace cirrovault

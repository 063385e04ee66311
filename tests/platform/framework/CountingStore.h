#pragma once

#include "platform/store/FaultInjectingStore.h"

namespace cirrovault::test {

// Counts the listings per folder: how often the path cache really asks the service.
class CountingStore : public FaultInjectingStore {
public:
    using FaultInjectingStore::FaultInjectingStore;

    int64_t list(const std::string& folder, std::vector<StoreItem>& items) override {
        {
            std::lock_guard lock(mutex_);
            ++lists_[folder];
        }
        return FaultInjectingStore::list(folder, items);
    }
    int listCount(const std::string& folder) const {
        std::lock_guard lock(mutex_);
        auto it = lists_.find(folder);
        return it == lists_.end() ? 0 : it->second;
    }
    int totalLists() const {
        std::lock_guard lock(mutex_);
        int total = 0;
        for (const auto& [folder, count] : lists_)
            total += count;
        return total;
    }
    void resetCounts() {
        std::lock_guard lock(mutex_);
        lists_.clear();
    }

private:
    mutable std::mutex mutex_;
    std::map<std::string, int> lists_; // guarded by mutex_
};

} // namespace cirrovault::test

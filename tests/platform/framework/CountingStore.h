#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/store/FaultInjectingStore.h"

namespace cirrovault::test {

// Passes everything on, counting the listings per folder: how often the cache really asks.
class CountingStore : public FaultInjectingStore {
public:
    using FaultInjectingStore::FaultInjectingStore;

    int64_t list(const std::string& folder, std::vector<StoreItem>& items) override {
        std::unique_lock lock(mutex_);
        ++lists_[folder];
        lock.unlock();
        return FaultInjectingStore::list(folder, items);
    }
    // Called after every put with its path and result; set before the puts start.
    std::function<void(const std::string&, int64_t)> afterPut;
    int64_t put(const std::string& path, ByteSource& source, Date modifyTime,
                TransferObserver* observer) override {
        int64_t code = FaultInjectingStore::put(path, source, modifyTime, observer);
        if (afterPut)
            afterPut(path, code);
        return code;
    }
    // Claims this time precision for the store behind (a coarse store over the local one).
    void claimTimePrecision(double seconds) { precision_ = seconds; }
    StoreCapabilities capabilities() const override {
        StoreCapabilities caps = FaultInjectingStore::capabilities();
        if (precision_ > 0)
            caps.modifyTimePrecision = precision_;
        return caps;
    }
    std::map<std::string, int> listCounts() const {
        std::lock_guard lock(mutex_);
        return lists_;
    }
    int listCount(const std::string& folder) const { return listCounts()[folder]; }
    int totalLists() const {
        int total = 0;
        for (const auto& [folder, count] : listCounts())
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
    double precision_ = 0;             // 0: the inner store's own
};

} // namespace cirrovault::test

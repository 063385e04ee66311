#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/os/ResultCodes.h"
#include "platform/store/StoreBackend.h"

namespace cirrovault::test {

// An upload's bytes in memory; counts what is read, and can fail reads from an offset.
class MemorySource : public ByteSource {
public:
    MemorySource(std::string data, std::string tag, uint32_t mode = 0)
        : data_(std::move(data)), tag_(std::move(tag)), mode_(mode) {}

    uint64_t size() const override { return data_.size(); }
    bool seek(uint64_t offset) override {
        if (offset > data_.size())
            return false;
        position_ = offset;
        return true;
    }
    int64_t read(char* buffer, size_t n) override {
        if (failAt_ && position_ >= *failAt_)
            return -1;
        size_t count = std::min<size_t>(n, data_.size() - position_);
        std::memcpy(buffer, data_.data() + position_, count);
        position_ += count;
        bytesRead_ += count;
        return static_cast<int64_t>(count);
    }
    std::string resumeTag() const override { return tag_; }
    uint32_t mode() const override { return mode_; }

    void failReadsFrom(uint64_t offset) { failAt_ = offset; }
    uint64_t bytesRead() const { return bytesRead_; }

private:
    std::string data_, tag_;
    uint32_t mode_;
    uint64_t position_ = 0, bytesRead_ = 0;
    std::optional<uint64_t> failAt_;
};

class MemorySink : public ByteSink {
public:
    bool write(const char* buffer, size_t n) override {
        data.append(buffer, n);
        return true;
    }
    bool finish() override { return true; }
    std::string data;
};

// Says stop once `stopAfter` bytes are stored, or when told to from another thread.
class StopObserver : public TransferObserver {
public:
    explicit StopObserver(uint64_t stopAfter = UINT64_MAX) : stopAfter_(stopAfter) {}
    void transferred(uint64_t done, uint64_t total) override {
        lastDone = done;
        lastTotal = total;
    }
    void resumedFrom(uint64_t bytes) override { resumed = bytes; }
    bool shouldContinue() override { return !stop && lastDone < stopAfter_; }

    std::atomic<bool> stop{false};
    std::atomic<uint64_t> lastDone{0};
    uint64_t lastTotal = 0, resumed = 0;

private:
    uint64_t stopAfter_;
};

// Content that differs at every offset, so a resume from the wrong place shows.
inline std::string patternBytes(size_t size, unsigned seed = 1) {
    std::string data(size, '\0');
    uint32_t x = seed * 2654435761u + 1;
    for (auto& c : data) {
        x = x * 1103515245u + 12345u;
        c = static_cast<char>(x >> 24);
    }
    return data;
}

inline int64_t putText(StoreBackend& store, const std::string& path, const std::string& text,
                       Date modifyTime = Date(1'600'000'000.0), uint32_t mode = 0) {
    MemorySource source(text, "t", mode);
    return store.put(path, source, modifyTime, nullptr);
}

inline std::string storedContent(StoreBackend& store, const std::string& path) {
    MemorySink sink;
    if (store.get(path, sink, nullptr) != 0)
        return "<get failed>";
    return sink.data;
}

// The item at path, which must be there.
inline StoreItem itemAt(StoreBackend& store, const std::string& path) {
    StoreItem item;
    EXPECT_EQ(store.stat(path, item), ResultCode::Success) << path;
    return item;
}

// The items of folder, which must list, in the order of their names.
inline std::vector<StoreItem> listed(StoreBackend& store, const std::string& folder) {
    std::vector<StoreItem> items;
    EXPECT_EQ(store.list(folder, items), ResultCode::Success) << folder;
    std::sort(items.begin(), items.end(), [](auto& a, auto& b) { return a.name < b.name; });
    return items;
}

template <class Pointer> Pointer loggedOn(Pointer store) {
    StoreSession session;
    EXPECT_EQ(store->logon("alice", "secret", session), ResultCode::Success);
    return store;
}

// The store's quota, which must be answered.
inline StoreQuota quotaOf(StoreBackend& store) {
    StoreQuota quota;
    EXPECT_EQ(store.quota(quota), ResultCode::Success);
    return quota;
}

inline int64_t statCode(StoreBackend& store, const std::string& path) {
    StoreItem item;
    return store.stat(path, item);
}

// A folder's figures as "bytes/files".
inline std::string figures(const StoreItem& item) {
    return std::to_string(item.size) + "/" + std::to_string(item.fileCount);
}
inline std::string figuresOf(StoreBackend& store, const std::string& path) {
    return figures(itemAt(store, path));
}

} // namespace cirrovault::test

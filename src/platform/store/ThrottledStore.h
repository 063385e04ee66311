#pragma once

#include <memory>

#include "platform/os/TokenBucket.h"
#include "platform/store/StoreBackend.h"

namespace cirrovault {

// A backend that passes everything to another one and paces what puts read from their
// sources to an upload limit shared by all of its transfers. For stores with no pacing
// of their own (the local store); a wait ends as soon as the transfer's observer asks
// it to stop.
class ThrottledStore : public StoreBackend {
public:
    ThrottledStore(std::shared_ptr<StoreBackend> inner, uint64_t bytesPerSecond);

    StoreCapabilities capabilities() const override { return inner_->capabilities(); }
    std::string describe() const override { return inner_->describe(); }
    std::string locationOf(const std::string& path) const override { return inner_->locationOf(path); }
    int64_t logon(const std::string& userName, const std::string& password, StoreSession& session) override {
        return inner_->logon(userName, password, session);
    }
    void logoff() override { inner_->logoff(); }
    int64_t stat(const std::string& path, StoreItem& item) override { return inner_->stat(path, item); }
    int64_t list(const std::string& folder, std::vector<StoreItem>& items) override {
        return inner_->list(folder, items);
    }
    int64_t makeFolder(const std::string& path, const std::string& description, const std::string& caption) override {
        return inner_->makeFolder(path, description, caption);
    }
    int64_t setFolderInfo(const std::string& path, const std::string& description,
                          const std::string& caption) override {
        return inner_->setFolderInfo(path, description, caption);
    }
    int64_t put(const std::string& path, ByteSource& source, Date modifyTime, TransferObserver* observer) override;
    int64_t get(const std::string& path, ByteSink& sink, TransferObserver* observer) override {
        return inner_->get(path, sink, observer);
    }
    int64_t move(const std::string& from, const std::string& to) override { return inner_->move(from, to); }
    int64_t copy(const std::string& from, const std::string& to) override { return inner_->copy(from, to); }
    int64_t remove(const std::string& path) override { return inner_->remove(path); }
    int64_t quota(StoreQuota& quota) override { return inner_->quota(quota); }
    int64_t readTaskList(std::string& document, std::string& version) override {
        return inner_->readTaskList(document, version);
    }
    int64_t writeTaskList(const std::string& document, const std::string& expectedVersion) override {
        return inner_->writeTaskList(document, expectedVersion);
    }
    int64_t flush() override { return inner_->flush(); }

    const std::shared_ptr<StoreBackend>& inner() const { return inner_; }

private:
    std::shared_ptr<StoreBackend> inner_;
    TokenBucket bucket_;
};

} // namespace cirrovault

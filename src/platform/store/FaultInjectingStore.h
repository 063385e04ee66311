#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "platform/store/StoreBackend.h"

namespace cirrovault {

// A backend that passes everything to another one, except the faults a test orders:
// a full account, a put that hangs, a connection that drops in the middle of a put, a
// chosen result code from any operation, a file that vanishes. Safe to command from
// one thread while another works through it.
class FaultInjectingStore : public StoreBackend {
public:
    enum class Operation {
        Logon,
        Stat,
        List,
        MakeFolder,
        SetFolderInfo,
        Put,
        Get,
        Move,
        Copy,
        Remove,
        Quota,
        ReadTaskList,
        WriteTaskList,
        Flush
    };

    explicit FaultInjectingStore(std::shared_ptr<StoreBackend> inner);
    ~FaultInjectingStore() override;

    // The nth put from now (1: the next one) answers SpaceLimit and stores nothing.
    void failPutWithSpaceLimit(int32_t nthPut);
    // The next put blocks until its observer says stop (it then answers Cancelled) or
    // until releaseHang(), after which it goes on to the inner store.
    void hangNextPut();
    void releaseHang();
    // Blocks until a put is hanging; for a test that must act while it does.
    void waitUntilHanging();
    // The next put hands the first `bytes` bytes to the inner store and then breaks off
    // as a lost connection would: the inner store keeps an interrupted ".part" and the
    // put answers Failure.
    void dropConnectionInNextPut(uint64_t bytes);
    // The operation answers code without reaching the inner store, `times` times
    // (negative: until cleared), once `passing` calls of it have gone through.
    void failOperation(Operation operation, int64_t code, int32_t times = -1,
                       int32_t passing = 0);
    // stat and get of this path answer NotFound, as if the file had just vanished.
    void vanishPath(const std::string& path);
    // Ends every ordered fault; a hanging put is released.
    void clearFaults();

    int32_t putCount() const; // puts seen so far, faulty or not
    std::shared_ptr<StoreBackend> inner() const { return inner_; }

    StoreCapabilities capabilities() const override;
    std::string describe() const override;
    std::string locationOf(const std::string& path) const override;
    int64_t logon(const std::string& userName, const std::string& password,
                  StoreSession& session) override;
    void logoff() override;
    int64_t stat(const std::string& path, StoreItem& item) override;
    int64_t list(const std::string& folder, std::vector<StoreItem>& items) override;
    int64_t makeFolder(const std::string& path, const std::string& description,
                       const std::string& caption) override;
    int64_t setFolderInfo(const std::string& path, const std::string& description,
                          const std::string& caption) override;
    int64_t put(const std::string& path, ByteSource& source, Date modifyTime,
                TransferObserver* observer) override;
    int64_t get(const std::string& path, ByteSink& sink, TransferObserver* observer) override;
    int64_t move(const std::string& from, const std::string& to) override;
    int64_t copy(const std::string& from, const std::string& to) override;
    int64_t remove(const std::string& path) override;
    int64_t quota(StoreQuota& quota) override;
    int64_t readTaskList(std::string& document, std::string& version) override;
    int64_t writeTaskList(const std::string& document, const std::string& expectedVersion) override;
    int64_t flush() override;

private:
    struct Failure {
        int64_t code = 0;
        int32_t times = -1;
        int32_t passing = 0;
    };
    // The code the operation must answer now, or nullopt to go on.
    std::optional<int64_t> injectedFailure(Operation operation);
    bool hasVanished(const std::string& path) const;
    // Success when the put may go on, Cancelled when its observer stopped it.
    int64_t hang(TransferObserver* observer);

    std::shared_ptr<StoreBackend> inner_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::map<Operation, Failure> failures_; // guarded by mutex_
    std::set<std::string> vanished_;        // guarded by mutex_; canonical paths
    int32_t putsUntilSpaceLimit_ = 0;       // guarded by mutex_; 0: none ordered
    bool hangOrdered_ = false;              // guarded by mutex_
    bool hanging_ = false;                  // guarded by mutex_
    uint64_t hangGeneration_ = 0;           // guarded by mutex_; bumped by a release
    std::optional<uint64_t> dropAfter_;     // guarded by mutex_
    int32_t puts_ = 0;                      // guarded by mutex_
};

} // namespace cirrovault

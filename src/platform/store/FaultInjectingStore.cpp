#include "platform/store/FaultInjectingStore.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

#include "platform/os/ResultCodes.h"
#include "platform/os/SystemLog.h"
#include "platform/store/StorePath.h"

namespace cirrovault {

namespace {

// How often a hanging put asks its observer whether to stop.
constexpr auto HangPoll = std::chrono::milliseconds(10);

// Lets only the first `limit` bytes (counted from where the upload starts) through.
class CutSource : public ByteSource {
public:
    CutSource(ByteSource& inner, uint64_t limit) : inner_(inner), limit_(limit) {}
    uint64_t size() const override { return inner_.size(); }
    bool seek(uint64_t offset) override { return inner_.seek(offset); }
    int64_t read(char* buffer, size_t n) override {
        n = static_cast<size_t>(std::min<uint64_t>(n, limit_ - passed_));
        if (n == 0)
            return 0;
        int64_t got = inner_.read(buffer, n);
        if (got > 0)
            passed_ += static_cast<uint64_t>(got);
        return got;
    }
    std::string resumeTag() const override { return inner_.resumeTag(); }
    uint32_t mode() const override { return inner_.mode(); }
    bool isCut() const { return passed_ >= limit_; }

private:
    ByteSource& inner_;
    uint64_t limit_;
    uint64_t passed_ = 0;
};

// Stops the inner put as soon as the cut is reached, as a dead connection would.
class CutObserver : public TransferObserver {
public:
    CutObserver(TransferObserver* outer, const CutSource& source)
        : outer_(outer), source_(source) {}
    void transferred(uint64_t done, uint64_t total) override {
        if (outer_)
            outer_->transferred(done, total);
    }
    void resumedFrom(uint64_t bytes) override {
        if (outer_)
            outer_->resumedFrom(bytes);
    }
    bool shouldContinue() override {
        return !source_.isCut() && (!outer_ || outer_->shouldContinue());
    }

private:
    TransferObserver* outer_;
    const CutSource& source_;
};

// Runs one operation; an exception becomes the operation's fixed log line and Failure.
template <typename Body> int64_t guarded(const char* operation, Body body) {
    try {
        return body();
    } catch (const std::exception&) {
        SystemLog::write(std::string("Error: FaultInjectingStore::") + operation + "()");
        return ResultCode::Failure;
    }
}

} // namespace

FaultInjectingStore::FaultInjectingStore(std::shared_ptr<StoreBackend> inner)
    : inner_(std::move(inner)) {}

FaultInjectingStore::~FaultInjectingStore() {
    clearFaults();
}

void FaultInjectingStore::failPutWithSpaceLimit(int32_t nthPut) {
    std::lock_guard lock(mutex_);
    putsUntilSpaceLimit_ = std::max(nthPut, 0);
}

void FaultInjectingStore::hangNextPut() {
    std::lock_guard lock(mutex_);
    hangOrdered_ = true;
}

void FaultInjectingStore::releaseHang() {
    std::lock_guard lock(mutex_);
    hangOrdered_ = false;
    ++hangGeneration_;
    changed_.notify_all();
}

void FaultInjectingStore::waitUntilHanging() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return hanging_; });
}

void FaultInjectingStore::dropConnectionInNextPut(uint64_t bytes) {
    std::lock_guard lock(mutex_);
    dropAfter_ = bytes;
}

void FaultInjectingStore::failOperation(Operation operation, int64_t code, int32_t times,
                                        int32_t passing) {
    std::lock_guard lock(mutex_);
    if (times == 0)
        failures_.erase(operation);
    else
        failures_[operation] = Failure{code, times, passing};
}

void FaultInjectingStore::vanishPath(const std::string& path) {
    std::lock_guard lock(mutex_);
    vanished_.insert(StorePath::normalize(path).value_or(path));
}

void FaultInjectingStore::clearFaults() {
    std::lock_guard lock(mutex_);
    failures_.clear();
    vanished_.clear();
    putsUntilSpaceLimit_ = 0;
    hangOrdered_ = false;
    dropAfter_.reset();
    ++hangGeneration_;
    changed_.notify_all();
}

int32_t FaultInjectingStore::putCount() const {
    std::lock_guard lock(mutex_);
    return puts_;
}

std::optional<int64_t> FaultInjectingStore::injectedFailure(Operation operation) {
    std::lock_guard lock(mutex_);
    auto found = failures_.find(operation);
    if (found == failures_.end())
        return std::nullopt;
    if (found->second.passing > 0) {
        --found->second.passing;
        return std::nullopt;
    }
    int64_t code = found->second.code;
    if (found->second.times > 0 && --found->second.times == 0)
        failures_.erase(found);
    return code;
}

bool FaultInjectingStore::hasVanished(const std::string& path) const {
    std::lock_guard lock(mutex_);
    return vanished_.count(StorePath::normalize(path).value_or(path)) > 0;
}

int64_t FaultInjectingStore::hang(TransferObserver* observer) {
    std::unique_lock lock(mutex_);
    hanging_ = true;
    const uint64_t generation = hangGeneration_;
    changed_.notify_all();
    int64_t result = ResultCode::Success;
    while (generation == hangGeneration_) {
        if (observer) {
            lock.unlock();
            bool goOn = observer->shouldContinue();
            lock.lock();
            if (!goOn) {
                result = ResultCode::Cancelled;
                break;
            }
        }
        changed_.wait_for(lock, HangPoll);
    }
    hanging_ = false;
    return result;
}

StoreCapabilities FaultInjectingStore::capabilities() const {
    return inner_->capabilities();
}

std::string FaultInjectingStore::locationOf(const std::string& path) const {
    return inner_->locationOf(path);
}

std::string FaultInjectingStore::describe() const {
    return "faulty " + inner_->describe();
}

int64_t FaultInjectingStore::logon(const std::string& userName, const std::string& password,
                                   StoreSession& session) {
    return guarded("logon", [&]() -> int64_t {
        if (auto code = injectedFailure(Operation::Logon))
            return *code;
        return inner_->logon(userName, password, session);
    });
}

void FaultInjectingStore::logoff() {
    inner_->logoff();
}

int64_t FaultInjectingStore::stat(const std::string& path, StoreItem& item) {
    return guarded("stat", [&]() -> int64_t {
        if (auto code = injectedFailure(Operation::Stat))
            return *code;
        if (hasVanished(path)) {
            item = {};
            return ResultCode::NotFound;
        }
        return inner_->stat(path, item);
    });
}

int64_t FaultInjectingStore::list(const std::string& folder, std::vector<StoreItem>& items) {
    return guarded("list", [&]() -> int64_t {
        if (auto code = injectedFailure(Operation::List))
            return *code;
        return inner_->list(folder, items);
    });
}

int64_t FaultInjectingStore::makeFolder(const std::string& path, const std::string& description,
                                        const std::string& caption) {
    return guarded("makeFolder", [&]() -> int64_t {
        if (auto code = injectedFailure(Operation::MakeFolder))
            return *code;
        return inner_->makeFolder(path, description, caption);
    });
}

int64_t FaultInjectingStore::setFolderInfo(const std::string& path, const std::string& description,
                                           const std::string& caption) {
    return guarded("setFolderInfo", [&]() -> int64_t {
        if (auto code = injectedFailure(Operation::SetFolderInfo))
            return *code;
        return inner_->setFolderInfo(path, description, caption);
    });
}

int64_t FaultInjectingStore::put(const std::string& path, ByteSource& source, Date modifyTime,
                                 TransferObserver* observer) {
    return guarded("put", [&]() -> int64_t {
        {
            std::lock_guard lock(mutex_);
            ++puts_;
        }
        if (auto code = injectedFailure(Operation::Put))
            return *code;
        bool hangNow = false;
        std::optional<uint64_t> dropAfter;
        {
            std::lock_guard lock(mutex_);
            if (putsUntilSpaceLimit_ > 0 && --putsUntilSpaceLimit_ == 0)
                return ResultCode::SpaceLimit;
            hangNow = std::exchange(hangOrdered_, false);
            dropAfter = std::exchange(dropAfter_, std::nullopt);
        }
        if (hangNow) {
            if (int64_t rc = hang(observer); rc != ResultCode::Success)
                return rc;
        }
        if (!dropAfter)
            return inner_->put(path, source, modifyTime, observer);
        CutSource cutSource(source, *dropAfter);
        CutObserver cutObserver(observer, cutSource);
        int64_t rc = inner_->put(path, cutSource, modifyTime, &cutObserver);
        if (cutSource.isCut() && rc != ResultCode::Success) {
            SystemLog::write("FaultInjectingStore: connection dropped during the upload of " +
                             path);
            return ResultCode::Failure;
        }
        return rc;
    });
}

int64_t FaultInjectingStore::get(const std::string& path, ByteSink& sink,
                                 TransferObserver* observer) {
    return guarded("get", [&]() -> int64_t {
        if (auto code = injectedFailure(Operation::Get))
            return *code;
        if (hasVanished(path))
            return ResultCode::NotFound;
        return inner_->get(path, sink, observer);
    });
}

int64_t FaultInjectingStore::move(const std::string& from, const std::string& to) {
    return guarded("move", [&]() -> int64_t {
        if (auto code = injectedFailure(Operation::Move))
            return *code;
        return inner_->move(from, to);
    });
}

int64_t FaultInjectingStore::copy(const std::string& from, const std::string& to) {
    return guarded("copy", [&]() -> int64_t {
        if (auto code = injectedFailure(Operation::Copy))
            return *code;
        return inner_->copy(from, to);
    });
}

int64_t FaultInjectingStore::remove(const std::string& path) {
    return guarded("remove", [&]() -> int64_t {
        if (auto code = injectedFailure(Operation::Remove))
            return *code;
        return inner_->remove(path);
    });
}

int64_t FaultInjectingStore::quota(StoreQuota& quota) {
    return guarded("quota", [&]() -> int64_t {
        if (auto code = injectedFailure(Operation::Quota))
            return *code;
        return inner_->quota(quota);
    });
}

int64_t FaultInjectingStore::readTaskList(std::string& document, std::string& version) {
    return guarded("readTaskList", [&]() -> int64_t {
        if (auto code = injectedFailure(Operation::ReadTaskList))
            return *code;
        return inner_->readTaskList(document, version);
    });
}

int64_t FaultInjectingStore::writeTaskList(const std::string& document,
                                           const std::string& expectedVersion) {
    return guarded("writeTaskList", [&]() -> int64_t {
        if (auto code = injectedFailure(Operation::WriteTaskList))
            return *code;
        return inner_->writeTaskList(document, expectedVersion);
    });
}

int64_t FaultInjectingStore::flush() {
    return guarded("flush", [&]() -> int64_t {
        if (auto code = injectedFailure(Operation::Flush))
            return *code;
        return inner_->flush();
    });
}

} // namespace cirrovault

#include "platform/store/ThrottledStore.h"

#include <algorithm>

namespace cirrovault {

namespace {

// Hands the store small reads, each paid for before it is read.
class ThrottledSource : public ByteSource {
public:
    ThrottledSource(ByteSource& inner, TokenBucket& bucket, TransferObserver* observer)
        : inner_(inner), bucket_(bucket), observer_(observer) {}

    uint64_t size() const override { return inner_.size(); }
    bool seek(uint64_t offset) override { return inner_.seek(offset); }
    std::string resumeTag() const override { return inner_.resumeTag(); }
    uint32_t mode() const override { return inner_.mode(); }

    int64_t read(char* buffer, size_t n) override {
        // A tenth of a second's worth at a time keeps the pace even and the progress live.
        size_t slice = static_cast<size_t>(std::max<uint64_t>(4096, bucket_.bytesPerSecond() / 10));
        n = std::min(n, slice);
        // A cancelled wait reads on: the store asks the observer itself right after and
        // stops with its own answer.
        bucket_.take(n, [this] { return !observer_ || observer_->shouldContinue(); });
        return inner_.read(buffer, n);
    }

private:
    ByteSource& inner_;
    TokenBucket& bucket_;
    TransferObserver* observer_;
};

} // namespace

ThrottledStore::ThrottledStore(std::shared_ptr<StoreBackend> inner, uint64_t bytesPerSecond)
    : inner_(std::move(inner)), bucket_(bytesPerSecond) {}

int64_t ThrottledStore::put(const std::string& path, ByteSource& source, Date modifyTime,
                            TransferObserver* observer) {
    ThrottledSource paced(source, bucket_, observer);
    return inner_->put(path, paced, modifyTime, observer);
}

} // namespace cirrovault

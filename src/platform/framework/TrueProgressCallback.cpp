#include "platform/framework/TrueProgressCallback.h"

#include <algorithm>

#include "platform/os/Clock.h"

namespace cirrovault {

void TrueProgressCallback::setSentSize(uint64_t v) {
    uint64_t before = sentSize_.exchange(v);
    // Bytes below tempSize were kept from an earlier attempt: they count for the
    // percentage but not for the speed of this run.
    uint64_t kept = tempSize_;
    uint64_t from = std::max(before, kept);
    uint64_t to = std::max(v, kept);
    if (to > from) {
        double zero = 0;
        startTime_.compare_exchange_strong(zero, Clock::shared().now().timeIntervalSince1970());
        sentThisRun_ += to - from;
    }
    if (TrueProgressDelegate* d = delegate_)
        d->progressChanged();
}

void TrueProgressCallback::addSentSize(int64_t delta, bool fresh) {
    sentSize_ += static_cast<uint64_t>(delta); // wraps back for a negative delta
    if (delta > 0 && fresh) {
        double zero = 0;
        startTime_.compare_exchange_strong(zero, Clock::shared().now().timeIntervalSince1970());
        sentThisRun_ += static_cast<uint64_t>(delta);
    }
    if (TrueProgressDelegate* d = delegate_)
        d->progressChanged();
}

void TrueProgressCallback::setMsg(const std::string& msg) {
    std::lock_guard lock(textMutex_);
    msg_ = msg;
}

std::string TrueProgressCallback::msg() const {
    std::lock_guard lock(textMutex_);
    return msg_;
}

void TrueProgressCallback::setCurrentFile(const std::string& path) {
    std::lock_guard lock(textMutex_);
    currentFile_ = path;
}

std::string TrueProgressCallback::currentFile() const {
    std::lock_guard lock(textMutex_);
    return currentFile_;
}

double TrueProgressCallback::percent() const {
    // A single transfer without run totals shows the current file's share.
    uint64_t total = totalSize_;
    uint64_t done = bytesDone();
    if (total == 0) {
        total = thisSize_;
        done = sentSize_;
    }
    if (total == 0)
        return 0;
    return std::min(100.0, 100.0 * static_cast<double>(done) / static_cast<double>(total));
}

double TrueProgressCallback::speed() const {
    double start = startTime_;
    if (start == 0)
        return 0;
    double elapsed = Clock::shared().now().timeIntervalSince1970() - start;
    if (elapsed <= 0)
        return 0;
    return static_cast<double>(sentThisRun_.load()) / elapsed;
}

double TrueProgressCallback::secondsLeft() const {
    double bytesPerSecond = speed();
    if (bytesPerSecond <= 0)
        return -1;
    uint64_t total = totalSize_;
    uint64_t done = bytesDone();
    if (total == 0) {
        total = thisSize_;
        done = sentSize_;
    }
    if (done >= total)
        return 0;
    return static_cast<double>(total - done) / bytesPerSecond;
}

void TrueProgressCallback::startTiming() {
    startTime_ = Clock::shared().now().timeIntervalSince1970();
    sentThisRun_ = 0;
}

} // namespace cirrovault

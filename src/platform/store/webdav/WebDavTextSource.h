#pragma once

#include <algorithm>
#include <string>

#include "platform/store/StoreBackend.h"

namespace cirrovault {

// A short text sent as a request body through the upload path (probes, the task list).
class WebDavTextSource : public ByteSource {
public:
    explicit WebDavTextSource(std::string text) : text_(std::move(text)) {}
    uint64_t size() const override { return text_.size(); }
    bool seek(uint64_t offset) override {
        if (offset > text_.size())
            return false;
        position_ = offset;
        return true;
    }
    int64_t read(char* buffer, size_t n) override {
        size_t count = std::min(n, text_.size() - position_);
        text_.copy(buffer, count, position_);
        position_ += count;
        return static_cast<int64_t>(count);
    }
    std::string resumeTag() const override { return {}; }

private:
    std::string text_;
    size_t position_ = 0;
};

} // namespace cirrovault

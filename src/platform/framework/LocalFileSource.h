#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/os/Date.h"
#include "platform/store/StoreBackend.h"

namespace cirrovault {

// The bytes of a local file for an upload, read as they go (never the whole file in
// memory). The size is fixed when the file is opened; a file that shrinks while it is
// read gives a read error rather than a short upload. A symbolic link is never
// followed: its bytes are its target, and its mode says it is a link.
class LocalFileSource : public ByteSource {
public:
    // nullptr when the path is neither a readable regular file nor a symbolic link.
    static std::unique_ptr<LocalFileSource> open(const std::string& path);
    ~LocalFileSource() override;
    LocalFileSource(const LocalFileSource&) = delete;
    LocalFileSource& operator=(const LocalFileSource&) = delete;

    uint64_t size() const override { return size_; }
    bool seek(uint64_t offset) override;
    int64_t read(char* buffer, size_t n) override;
    // Size, modification and status-change times to the nanosecond, device and inode:
    // any write to the file changes the status-change time, so an equal tag means
    // the content is the one an interrupted upload started with.
    std::string resumeTag() const override { return tag_; }

    uint32_t mode() const override { return mode_; }
    Date modifyTime() const { return modifyTime_; }

private:
    LocalFileSource() = default;
    int fd_ = -1;
    uint64_t size_ = 0;
    uint64_t position_ = 0;
    Date modifyTime_;
    uint32_t mode_ = 0;
    std::string tag_;
    std::string linkTarget_; // the bytes of a link, read with its status
};

} // namespace cirrovault

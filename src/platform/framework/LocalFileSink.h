#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/os/Date.h"
#include "platform/store/StoreBackend.h"

namespace cirrovault {

// Downloaded bytes into a local file. They go to a hidden temporary file beside the
// target, which takes the target's name only at finish (with the stored modification
// time already set), so an interrupted or refused download never leaves a partial
// file under the real name.
class LocalFileSink : public ByteSink {
public:
    // nullptr when the temporary file cannot be created in the target's folder.
    // mode: the stored st_mode; a regular file's permission bits are the temporary
    // file's from the start, so a private file is never readable by others on the way.
    static std::unique_ptr<LocalFileSink> open(const std::string& targetPath, Date modifyTime,
                                               uint32_t mode = 0);
    ~LocalFileSink() override; // discards an unfinished download
    LocalFileSink(const LocalFileSink&) = delete;
    LocalFileSink& operator=(const LocalFileSink&) = delete;

    bool write(const char* buffer, size_t n) override;
    bool finish() override;
    // Removes the temporary file; the target is left as it was.
    void discard();

private:
    LocalFileSink() = default;
    int fd_ = -1;
    std::string targetPath_;
    std::string tempPath_;
    Date modifyTime_;
    bool finished_ = false;
};

} // namespace cirrovault

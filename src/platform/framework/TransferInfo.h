#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/os/Date.h"

namespace cirrovault {

class TrueProgressCallback;

// One transfer request: which server file, which local file, which progress object.
class TransferInfo {
public:
    void setSvrFile(const std::string& path) { svrFile_ = path; }
    const std::string& svrFile() const { return svrFile_; }
    void setLocFile(const std::string& path) { locFile_ = path; }
    const std::string& locFile() const { return locFile_; }
    void setProgress(TrueProgressCallback* progress) { progress_ = progress; }
    TrueProgressCallback* progress() const { return progress_; }
    // Other transfers share the progress object: this one adds its bytes to the sent
    // figure and takes them back when it ends, and leaves the current file's figures alone.
    void setSharedProgress(bool shared) { sharedProgress_ = shared; }
    bool sharedProgress() const { return sharedProgress_; }
    // Pass phrase of an encrypted task; empty for a plain one.
    void setPassPhrase(const std::string& phrase) { passPhrase_ = phrase; }
    const std::string& passPhrase() const { return passPhrase_; }
    // The time the stored copy keeps instead of the local file's own: for a copy whose
    // content is not sure to match any state of the file. Unset: the file's own.
    void setStoredTime(std::optional<Date> time) { storedTime_ = time; }
    const std::optional<Date>& storedTime() const { return storedTime_; }
    // After a download: the st_mode kept with the stored file (0: none was kept).
    void setStoredMode(uint32_t mode) { storedMode_ = mode; }
    uint32_t storedMode() const { return storedMode_; }

private:
    std::string svrFile_;
    std::string locFile_;
    TrueProgressCallback* progress_ = nullptr;
    bool sharedProgress_ = false;
    std::string passPhrase_;
    std::optional<Date> storedTime_;
    uint32_t storedMode_ = 0;
};

} // namespace cirrovault

#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <sodium.h>

#include "platform/framework/FileCrypto.h"
#include "platform/framework/LocalFileSink.h"

namespace cirrovault {

// Downloaded bytes of an encrypted stored file (see FileCrypto), decrypted into a
// LocalFileSink as they arrive. The last 64 bytes are held back as the trailer; the file
// takes its target name only when the content MAC matches and the file is bound to one
// of boundNames and to modifyTime (the time the store lists for it). error() tells why
// it refused; misplaced() tells that the content was intact but bound elsewhere.
class DecryptingFileSink : public ByteSink {
public:
    DecryptingFileSink(std::unique_ptr<LocalFileSink> target, std::string passPhrase,
                       std::vector<std::string> boundNames, Date modifyTime);

    bool write(const char* buffer, size_t n) override;
    bool finish() override;
    // Success, WrongPassPhrase, DamagedFile, LocalFileError or Failure (the keys could
    // not be derived).
    int64_t error() const { return error_; }
    // True when the file is one this pass phrase made, undamaged, but for another name
    // or an older modification time: swapped or put back by the store.
    bool misplaced() const { return misplaced_; }

private:
    bool fail(int64_t code);
    bool openHeader();
    bool bindingMatches(const unsigned char* contentMac) const;

    std::unique_ptr<LocalFileSink> target_;
    std::string passPhrase_;
    std::vector<std::string> boundNames_;
    Date modifyTime_;
    std::shared_ptr<const FileCrypto::Keys> keys_;
    FileCrypto::Header header_;
    std::array<unsigned char, FileCrypto::HeaderSize> headerBytes_{};
    size_t headerFill_ = 0;
    std::vector<unsigned char> pending_; // body bytes not yet known not to be the trailer
    crypto_generichash_state mac_{};
    uint64_t bodyOffset_ = 0;
    int64_t error_ = 0;
    bool misplaced_ = false;
};

} // namespace cirrovault

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
// LocalFileSink as they arrive. The last 64 bytes are held back as the MAC; the file
// takes its target name only when the MAC matches. error() tells why it refused.
class DecryptingFileSink : public ByteSink {
public:
    DecryptingFileSink(std::unique_ptr<LocalFileSink> target, std::string passPhrase);

    bool write(const char* buffer, size_t n) override;
    bool finish() override;
    // Success, WrongPassPhrase, DamagedFile or LocalFileError.
    int64_t error() const { return error_; }

private:
    bool fail(int64_t code);
    bool openHeader();

    std::unique_ptr<LocalFileSink> target_;
    std::string passPhrase_;
    std::shared_ptr<const FileCrypto::Keys> keys_;
    FileCrypto::Header header_;
    std::array<unsigned char, FileCrypto::HeaderSize> headerBytes_{};
    size_t headerFill_ = 0;
    std::vector<unsigned char> pending_; // body bytes not yet known not to be the trailer
    crypto_generichash_state mac_{};
    uint64_t bodyOffset_ = 0;
    int64_t error_ = 0;
};

} // namespace cirrovault

#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include <sodium.h>

#include "platform/framework/FileCrypto.h"
#include "platform/framework/LocalFileSource.h"

namespace cirrovault {

// A local file as its encrypted stored form (see FileCrypto), made as it is read.
// Seeking to an offset re-reads and re-encrypts the local bytes before it (nothing is
// sent) so that the trailing MAC still covers the whole file: that is what lets the
// store resume an interrupted encrypted upload from its ".part".
class EncryptingFileSource : public ByteSource {
public:
    // The stored form of the local file at path, bound to boundName (its name relative
    // to its task) and to the local file's modification time, which the store keeps.
    // nullptr with code LocalFileError (unreadable file) or Failure (key derivation).
    static std::unique_ptr<EncryptingFileSource> open(const std::string& path,
                                                      const std::string& passPhrase,
                                                      const std::string& boundName,
                                                      int64_t& code);

    uint64_t size() const override { return plain_->size() + FileCrypto::Overhead; }
    bool seek(uint64_t offset) override;
    int64_t read(char* buffer, size_t n) override;
    std::string resumeTag() const override { return tag_; }

    uint32_t mode() const override { return plain_->mode(); }
    Date modifyTime() const { return plain_->modifyTime(); }

private:
    EncryptingFileSource() = default;
    void restart();
    void makeTrailer();

    std::unique_ptr<LocalFileSource> plain_;
    std::shared_ptr<const FileCrypto::Keys> keys_;
    FileCrypto::Header header_;
    std::array<unsigned char, FileCrypto::HeaderSize> headerBytes_{};
    std::array<unsigned char, FileCrypto::TrailerSize> trailer_{};
    crypto_generichash_state mac_{};
    std::string boundName_;
    uint64_t position_ = 0;
    std::string tag_;
};

} // namespace cirrovault

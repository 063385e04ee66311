#include "platform/framework/EncryptingFileSource.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "platform/os/ResultCodes.h"

namespace cirrovault {

std::unique_ptr<EncryptingFileSource> EncryptingFileSource::open(const std::string& path,
                                                                 const std::string& passPhrase,
                                                                 const std::string& boundName,
                                                                 int64_t& code) {
    std::unique_ptr<EncryptingFileSource> source(new EncryptingFileSource());
    source->plain_ = LocalFileSource::open(path);
    if (!source->plain_) {
        code = ResultCode::LocalFileError;
        return nullptr;
    }
    source->boundName_ = boundName;
    source->header_ = FileCrypto::newHeader(passPhrase);
    // The same unchanged file gets the same nonce again in this process, so a retry
    // produces identical bytes and the store can continue its ".part".
    source->header_.nonce = FileCrypto::nonceForContent(passPhrase, source->plain_->resumeTag());
    source->keys_ = FileCrypto::keysFor(passPhrase, source->header_);
    if (!source->keys_) {
        code = ResultCode::Failure;
        return nullptr;
    }
    source->headerBytes_ = FileCrypto::encodeHeader(source->header_, *source->keys_);
    source->tag_ = "xchacha20:" +
                   FileCrypto::toHex(source->header_.salt.data(), source->header_.salt.size()) +
                   ":" +
                   FileCrypto::toHex(source->header_.nonce.data(), source->header_.nonce.size()) +
                   ":" + source->plain_->resumeTag();
    source->restart();
    code = ResultCode::Success;
    return source;
}

void EncryptingFileSource::restart() {
    crypto_generichash_init(&mac_, keys_->mac, FileCrypto::KeySize, FileCrypto::MacSize);
    position_ = 0;
}

bool EncryptingFileSource::seek(uint64_t offset) {
    if (offset > size() || !plain_->seek(0))
        return false;
    restart();
    std::vector<char> scratch(64 * 1024);
    while (position_ < offset) {
        size_t want = static_cast<size_t>(std::min<uint64_t>(scratch.size(), offset - position_));
        if (read(scratch.data(), want) <= 0)
            return false;
    }
    return true;
}

void EncryptingFileSource::makeTrailer() {
    crypto_generichash_final(&mac_, trailer_.data(), FileCrypto::MacSize);
    auto tag = FileCrypto::bindingTag(*keys_, trailer_.data(), boundName_,
                                      FileCrypto::bindingSecond(plain_->modifyTime()));
    std::memcpy(trailer_.data() + FileCrypto::MacSize, tag.data(), tag.size());
}

int64_t EncryptingFileSource::read(char* buffer, size_t n) {
    const uint64_t bodyEnd = FileCrypto::HeaderSize + plain_->size();
    auto* out = reinterpret_cast<unsigned char*>(buffer);
    if (n == 0 || position_ >= size())
        return 0;
    if (position_ < FileCrypto::HeaderSize) {
        size_t take = std::min<size_t>(n, FileCrypto::HeaderSize - position_);
        std::memcpy(out, headerBytes_.data() + position_, take);
        crypto_generichash_update(&mac_, out, take);
        position_ += take;
        if (position_ == bodyEnd) // an empty file: the trailer follows the header
            makeTrailer();
        return static_cast<int64_t>(take);
    }
    if (position_ < bodyEnd) {
        size_t want = static_cast<size_t>(std::min<uint64_t>(n, bodyEnd - position_));
        int64_t got = plain_->read(buffer, want);
        if (got <= 0)
            return -1;
        FileCrypto::applyKeyStream(out, static_cast<size_t>(got),
                                   position_ - FileCrypto::HeaderSize, header_, *keys_);
        crypto_generichash_update(&mac_, out, static_cast<size_t>(got));
        position_ += static_cast<uint64_t>(got);
        if (position_ == bodyEnd)
            makeTrailer();
        return got;
    }
    size_t into = static_cast<size_t>(position_ - bodyEnd);
    size_t take = std::min<size_t>(n, FileCrypto::TrailerSize - into);
    std::memcpy(out, trailer_.data() + into, take);
    position_ += take;
    return static_cast<int64_t>(take);
}

} // namespace cirrovault

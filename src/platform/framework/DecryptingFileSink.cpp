#include "platform/framework/DecryptingFileSink.h"

#include <algorithm>
#include <cstring>

#include "platform/framework/ResultCodes.h"

namespace cirrovault {

DecryptingFileSink::DecryptingFileSink(std::unique_ptr<LocalFileSink> target,
                                       std::string passPhrase)
    : target_(std::move(target)), passPhrase_(std::move(passPhrase)) {
    if (!target_)
        error_ = ResultCode::LocalFileError;
}

bool DecryptingFileSink::fail(int64_t code) {
    if (error_ == ResultCode::Success)
        error_ = code;
    if (target_)
        target_->discard();
    return false;
}

bool DecryptingFileSink::openHeader() {
    if (!FileCrypto::decodeHeader(headerBytes_.data(), header_))
        return fail(ResultCode::DamagedFile);
    keys_ = FileCrypto::keysFor(passPhrase_, header_);
    if (!keys_)
        return fail(ResultCode::Failure);
    if (!FileCrypto::checkKey(headerBytes_.data(), *keys_))
        return fail(ResultCode::WrongPassPhrase);
    crypto_generichash_init(&mac_, keys_->mac, FileCrypto::KeySize, FileCrypto::TrailerSize);
    crypto_generichash_update(&mac_, headerBytes_.data(), headerBytes_.size());
    return true;
}

bool DecryptingFileSink::write(const char* buffer, size_t n) {
    if (error_ != ResultCode::Success)
        return false;
    auto* in = reinterpret_cast<const unsigned char*>(buffer);
    if (headerFill_ < FileCrypto::HeaderSize) {
        size_t take = std::min(n, FileCrypto::HeaderSize - headerFill_);
        std::memcpy(headerBytes_.data() + headerFill_, in, take);
        headerFill_ += take;
        in += take;
        n -= take;
        if (headerFill_ == FileCrypto::HeaderSize && !openHeader())
            return false;
    }
    if (n == 0)
        return true;
    pending_.insert(pending_.end(), in, in + n);
    if (pending_.size() <= FileCrypto::TrailerSize)
        return true;
    size_t ready = pending_.size() - FileCrypto::TrailerSize;
    crypto_generichash_update(&mac_, pending_.data(), ready);
    FileCrypto::applyKeyStream(pending_.data(), ready, bodyOffset_, header_, *keys_);
    bodyOffset_ += ready;
    if (!target_->write(reinterpret_cast<const char*>(pending_.data()), ready))
        return fail(ResultCode::LocalFileError);
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(ready));
    return true;
}

bool DecryptingFileSink::finish() {
    if (error_ != ResultCode::Success)
        return false;
    if (headerFill_ < FileCrypto::HeaderSize || pending_.size() != FileCrypto::TrailerSize)
        return fail(ResultCode::DamagedFile);
    unsigned char mac[FileCrypto::TrailerSize];
    crypto_generichash_final(&mac_, mac, sizeof mac);
    if (crypto_verify_64(mac, pending_.data()) != 0)
        return fail(ResultCode::DamagedFile);
    if (!target_->finish())
        return fail(ResultCode::LocalFileError);
    return true;
}

} // namespace cirrovault

#include "platform/framework/DecryptingFileSink.h"

#include <algorithm>
#include <cstring>

#include "platform/os/ResultCodes.h"

namespace cirrovault {

DecryptingFileSink::DecryptingFileSink(std::unique_ptr<LocalFileSink> target,
                                       std::string passPhrase,
                                       std::vector<std::string> boundNames, Date modifyTime)
    : target_(std::move(target)), passPhrase_(std::move(passPhrase)),
      boundNames_(std::move(boundNames)), modifyTime_(modifyTime) {
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
    if (!FileCrypto::checkKey(headerBytes_.data(), header_, *keys_))
        return fail(ResultCode::WrongPassPhrase);
    crypto_generichash_init(&mac_, keys_->mac, FileCrypto::KeySize,
                            header_.format == FileCrypto::Format::Bound ? FileCrypto::MacSize
                                                                        : FileCrypto::TrailerSize);
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

bool DecryptingFileSink::bindingMatches(const unsigned char* contentMac) const {
    const unsigned char* stored = pending_.data() + FileCrypto::MacSize;
    const int64_t second = FileCrypto::bindingSecond(modifyTime_);
    for (const auto& name : boundNames_) {
        // A second either way: the stores round a time they keep, and a time near a
        // whole second may come back on the other side of it.
        for (int64_t s : {second, second - 1, second + 1}) {
            auto tag = FileCrypto::bindingTag(*keys_, contentMac, name, s);
            if (crypto_verify_32(tag.data(), stored) == 0)
                return true;
        }
    }
    return false;
}

bool DecryptingFileSink::finish() {
    if (error_ != ResultCode::Success)
        return false;
    if (headerFill_ < FileCrypto::HeaderSize || pending_.size() != FileCrypto::TrailerSize)
        return fail(ResultCode::DamagedFile);
    unsigned char mac[FileCrypto::TrailerSize];
    if (header_.format == FileCrypto::Format::Unbound) {
        crypto_generichash_final(&mac_, mac, FileCrypto::TrailerSize);
        if (crypto_verify_64(mac, pending_.data()) != 0)
            return fail(ResultCode::DamagedFile);
    } else {
        crypto_generichash_final(&mac_, mac, FileCrypto::MacSize);
        if (crypto_verify_32(mac, pending_.data()) != 0)
            return fail(ResultCode::DamagedFile);
        if (!bindingMatches(mac)) {
            misplaced_ = true;
            return fail(ResultCode::DamagedFile);
        }
    }
    if (!target_->finish())
        return fail(ResultCode::LocalFileError);
    return true;
}

} // namespace cirrovault

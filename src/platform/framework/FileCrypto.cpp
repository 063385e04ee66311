#include "platform/framework/FileCrypto.h"

#include <cstring>
#include <map>
#include <mutex>
#include <stdexcept>

#include <sodium.h>

namespace cirrovault {

namespace {

constexpr unsigned char Magic[4] = {'C', 'V', 'E', '1'};
constexpr unsigned char KdfArgon2id = 2;
constexpr char KdfContext[crypto_kdf_CONTEXTBYTES + 1] = "cvfile01";
// Costs accepted in a stored header: enough room for stronger settings later, but a
// damaged or hostile header cannot make us spend minutes or gigabytes.
constexpr uint32_t MaxOpsLimit = 16;
constexpr uint32_t MinMemKiB = 8;
constexpr uint32_t MaxMemKiB = 1024 * 1024;
constexpr size_t CacheLimit = 64;
constexpr size_t NonceCacheLimit = 4096;

void ensureSodium() {
    static const int ready = sodium_init();
    if (ready < 0)
        throw std::runtime_error("libsodium cannot start");
}

void putU32(unsigned char* p, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<unsigned char>(v >> (8 * i));
}

uint32_t getU32(const unsigned char* p) {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i)
        v |= static_cast<uint32_t>(p[i]) << (8 * i);
    return v;
}

// Process-wide caches. Entries are found by a hash keyed with a random per-process key,
// so the pass phrase itself is never kept as a map key.
struct Caches {
    std::mutex mutex;
    unsigned char lookupKey[crypto_generichash_KEYBYTES];
    std::map<std::string, std::shared_ptr<const FileCrypto::Keys>> keys; // guarded by mutex
    std::map<std::string, std::array<unsigned char, FileCrypto::SaltSize>> salts; // guarded by mutex
    std::map<std::string, std::array<unsigned char, FileCrypto::NonceSize>> nonces; // guarded by mutex

    Caches() { randombytes_buf(lookupKey, sizeof lookupKey); }

    std::string lookup(const std::string& a, const void* b = nullptr, size_t bn = 0) {
        crypto_generichash_state st;
        crypto_generichash_init(&st, lookupKey, sizeof lookupKey, 32);
        uint64_t len = a.size();
        crypto_generichash_update(&st, reinterpret_cast<const unsigned char*>(&len), sizeof len);
        crypto_generichash_update(&st, reinterpret_cast<const unsigned char*>(a.data()), a.size());
        if (bn)
            crypto_generichash_update(&st, static_cast<const unsigned char*>(b), bn);
        unsigned char out[32];
        crypto_generichash_final(&st, out, sizeof out);
        return std::string(reinterpret_cast<const char*>(out), sizeof out);
    }
};

Caches& caches() {
    ensureSodium();
    static Caches c;
    return c;
}

} // namespace

FileCrypto::Keys::Keys() {
    sodium_memzero(cipher, sizeof cipher);
    sodium_memzero(mac, sizeof mac);
    sodium_memzero(check, sizeof check);
}

FileCrypto::Keys::~Keys() {
    sodium_memzero(cipher, sizeof cipher);
    sodium_memzero(mac, sizeof mac);
    sodium_memzero(check, sizeof check);
}

FileCrypto::Header FileCrypto::newHeader(const std::string& passPhrase) {
    Caches& c = caches();
    Header h;
    h.opsLimit = static_cast<uint32_t>(crypto_pwhash_OPSLIMIT_INTERACTIVE);
    h.memLimitKiB = static_cast<uint32_t>(crypto_pwhash_MEMLIMIT_INTERACTIVE / 1024);
    {
        std::lock_guard lock(c.mutex);
        std::string id = c.lookup(passPhrase);
        auto it = c.salts.find(id);
        if (it == c.salts.end()) {
            std::array<unsigned char, SaltSize> salt;
            randombytes_buf(salt.data(), salt.size());
            it = c.salts.emplace(id, salt).first;
        }
        h.salt = it->second;
    }
    randombytes_buf(h.nonce.data(), h.nonce.size());
    return h;
}

std::shared_ptr<const FileCrypto::Keys> FileCrypto::keysFor(const std::string& passPhrase,
                                                            const Header& header) {
    Caches& c = caches();
    unsigned char params[SaltSize + 8];
    std::memcpy(params, header.salt.data(), SaltSize);
    putU32(params + SaltSize, header.opsLimit);
    putU32(params + SaltSize + 4, header.memLimitKiB);
    std::string id = c.lookup(passPhrase, params, sizeof params);
    {
        std::lock_guard lock(c.mutex);
        auto it = c.keys.find(id);
        if (it != c.keys.end())
            return it->second;
    }
    // The slow part runs unlocked; two threads meeting here both derive the same keys.
    unsigned char master[KeySize];
    if (crypto_pwhash(master, sizeof master, passPhrase.data(), passPhrase.size(),
                      header.salt.data(), header.opsLimit,
                      static_cast<size_t>(header.memLimitKiB) * 1024,
                      crypto_pwhash_ALG_ARGON2ID13) != 0)
        return nullptr;
    auto keys = std::make_shared<Keys>();
    crypto_kdf_derive_from_key(keys->cipher, KeySize, 1, KdfContext, master);
    crypto_kdf_derive_from_key(keys->mac, KeySize, 2, KdfContext, master);
    crypto_kdf_derive_from_key(keys->check, KeySize, 3, KdfContext, master);
    sodium_memzero(master, sizeof master);
    std::lock_guard lock(c.mutex);
    if (c.keys.size() >= CacheLimit)
        c.keys.clear();
    c.keys.emplace(id, keys);
    return keys;
}

std::array<unsigned char, FileCrypto::HeaderSize> FileCrypto::encodeHeader(const Header& header,
                                                                           const Keys& keys) {
    std::array<unsigned char, HeaderSize> out{};
    std::memcpy(out.data(), Magic, 4);
    out[4] = KdfArgon2id;
    putU32(out.data() + 8, header.opsLimit);
    putU32(out.data() + 12, header.memLimitKiB);
    std::memcpy(out.data() + 16, header.salt.data(), SaltSize);
    std::memcpy(out.data() + 32, header.nonce.data(), NonceSize);
    crypto_generichash(out.data() + 56, 8, out.data(), 56, keys.check, KeySize);
    return out;
}

bool FileCrypto::decodeHeader(const unsigned char* bytes, Header& header) {
    if (std::memcmp(bytes, Magic, 4) != 0 || bytes[4] != KdfArgon2id || bytes[5] != 0 ||
        bytes[6] != 0 || bytes[7] != 0)
        return false;
    header.opsLimit = getU32(bytes + 8);
    header.memLimitKiB = getU32(bytes + 12);
    if (header.opsLimit < crypto_pwhash_OPSLIMIT_MIN || header.opsLimit > MaxOpsLimit ||
        header.memLimitKiB < MinMemKiB || header.memLimitKiB > MaxMemKiB)
        return false;
    std::memcpy(header.salt.data(), bytes + 16, SaltSize);
    std::memcpy(header.nonce.data(), bytes + 32, NonceSize);
    return true;
}

bool FileCrypto::checkKey(const unsigned char* headerBytes, const Keys& keys) {
    unsigned char expected[8];
    crypto_generichash(expected, sizeof expected, headerBytes, 56, keys.check, KeySize);
    return sodium_memcmp(expected, headerBytes + 56, sizeof expected) == 0;
}

void FileCrypto::applyKeyStream(unsigned char* data, size_t n, uint64_t offset,
                                const Header& header, const Keys& keys) {
    size_t into = static_cast<size_t>(offset % 64);
    if (into != 0 && n > 0) {
        // The first block is entered part way: make its key stream and use the tail.
        unsigned char block[64] = {};
        crypto_stream_xchacha20_xor_ic(block, block, sizeof block, header.nonce.data(),
                                       offset / 64, keys.cipher);
        size_t take = std::min(n, 64 - into);
        for (size_t i = 0; i < take; ++i)
            data[i] ^= block[into + i];
        sodium_memzero(block, sizeof block);
        data += take;
        n -= take;
        offset += take;
    }
    if (n > 0)
        crypto_stream_xchacha20_xor_ic(data, data, n, header.nonce.data(), offset / 64,
                                       keys.cipher);
}

std::array<unsigned char, FileCrypto::NonceSize> FileCrypto::nonceForContent(
    const std::string& passPhrase, const std::string& resumeTag) {
    Caches& c = caches();
    std::string id = c.lookup(passPhrase, resumeTag.data(), resumeTag.size());
    std::lock_guard lock(c.mutex);
    auto it = c.nonces.find(id);
    if (it != c.nonces.end())
        return it->second;
    if (c.nonces.size() >= NonceCacheLimit)
        c.nonces.clear();
    std::array<unsigned char, NonceSize> nonce;
    randombytes_buf(nonce.data(), nonce.size());
    c.nonces.emplace(id, nonce);
    return nonce;
}

std::string FileCrypto::toHex(const unsigned char* bytes, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(n * 2);
    for (size_t i = 0; i < n; ++i) {
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 15];
    }
    return out;
}

} // namespace cirrovault

#include "platform/framework/FileCrypto.h"

#include <cmath>
#include <cstring>
#include <map>
#include <mutex>
#include <stdexcept>

#include <sodium.h>

namespace cirrovault {

namespace {

constexpr unsigned char Magic[3] = {'C', 'V', 'E'};
constexpr unsigned char FormatUnbound = '1';
constexpr unsigned char FormatBound = '2';
constexpr unsigned char KdfArgon2id = 2;
constexpr char KdfContext[crypto_kdf_CONTEXTBYTES + 1] = "cvfile01";
// The costs newHeader writes are also the most a stored header may ask for: a damaged
// or hostile header must not make a restore spend seconds or gigabytes.
constexpr uint32_t WrittenOpsLimit = crypto_pwhash_OPSLIMIT_INTERACTIVE;
constexpr uint32_t WrittenMemKiB = crypto_pwhash_MEMLIMIT_INTERACTIVE / 1024;
constexpr uint32_t MinMemKiB = 8;
constexpr size_t CheckedHeaderBytes = 56; // what the header check covers
constexpr size_t CacheLimit = 64;
constexpr size_t NonceCacheLimit = 4096;
// A version name is its original with a number put in; more digits than this are not
// a number the history ever gives.
constexpr size_t MaxVersionDigits = 10;

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

void putU64(unsigned char* p, uint64_t v) {
    for (int i = 0; i < 8; ++i)
        p[i] = static_cast<unsigned char>(v >> (8 * i));
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

void headerCheck(const unsigned char* headerBytes, unsigned char* out) {
    crypto_generichash(out, 8, headerBytes, CheckedHeaderBytes, nullptr, 0);
}

void keyCheck(FileCrypto::Format format, const unsigned char* headerBytes,
              const FileCrypto::Keys& keys, unsigned char* out) {
    // The unbound format checked the key over its header, so a damaged salt or nonce
    // looked like a wrong pass phrase; the bound one checks the key alone.
    if (format == FileCrypto::Format::Unbound)
        crypto_generichash(out, 8, headerBytes, 56, keys.check, FileCrypto::KeySize);
    else
        crypto_generichash(out, 8, nullptr, 0, keys.check, FileCrypto::KeySize);
}

std::vector<std::string> splitServerPath(const std::string& path) {
    std::vector<std::string> parts;
    size_t at = 0;
    while (at <= path.size()) {
        size_t end = path.find('\\', at);
        if (end == std::string::npos)
            end = path.size();
        if (end > at)
            parts.push_back(path.substr(at, end - at));
        at = end + 1;
    }
    return parts;
}

} // namespace

FileCrypto::Keys::Keys() {
    sodium_memzero(cipher, sizeof cipher);
    sodium_memzero(mac, sizeof mac);
    sodium_memzero(check, sizeof check);
    sodium_memzero(bind, sizeof bind);
}

FileCrypto::Keys::~Keys() {
    sodium_memzero(cipher, sizeof cipher);
    sodium_memzero(mac, sizeof mac);
    sodium_memzero(check, sizeof check);
    sodium_memzero(bind, sizeof bind);
}

FileCrypto::Header FileCrypto::newHeader(const std::string& passPhrase) {
    Caches& c = caches();
    Header h;
    h.opsLimit = WrittenOpsLimit;
    h.memLimitKiB = WrittenMemKiB;
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
    crypto_kdf_derive_from_key(keys->bind, KeySize, 4, KdfContext, master);
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
    std::memcpy(out.data(), Magic, 3);
    out[3] = FormatBound;
    out[4] = KdfArgon2id;
    out[5] = static_cast<unsigned char>(header.opsLimit);
    const uint32_t memMiB = header.memLimitKiB / 1024;
    out[6] = static_cast<unsigned char>(memMiB);
    out[7] = static_cast<unsigned char>(memMiB >> 8);
    std::memcpy(out.data() + 8, header.salt.data(), SaltSize);
    std::memcpy(out.data() + 24, header.nonce.data(), NonceSize);
    keyCheck(Format::Bound, out.data(), keys, out.data() + 48);
    headerCheck(out.data(), out.data() + CheckedHeaderBytes);
    return out;
}

bool FileCrypto::decodeHeader(const unsigned char* bytes, Header& header) {
    if (std::memcmp(bytes, Magic, 3) != 0 || bytes[4] != KdfArgon2id)
        return false;
    if (bytes[3] == FormatBound) {
        unsigned char expected[8];
        headerCheck(bytes, expected);
        if (std::memcmp(expected, bytes + CheckedHeaderBytes, sizeof expected) != 0)
            return false;
        header.format = Format::Bound;
        header.opsLimit = bytes[5];
        header.memLimitKiB = (static_cast<uint32_t>(bytes[6]) | static_cast<uint32_t>(bytes[7]) << 8) * 1024;
        std::memcpy(header.salt.data(), bytes + 8, SaltSize);
        std::memcpy(header.nonce.data(), bytes + 24, NonceSize);
    } else if (bytes[3] == FormatUnbound) {
        if (bytes[5] != 0 || bytes[6] != 0 || bytes[7] != 0)
            return false;
        header.format = Format::Unbound;
        header.opsLimit = getU32(bytes + 8);
        header.memLimitKiB = getU32(bytes + 12);
        std::memcpy(header.salt.data(), bytes + 16, SaltSize);
        std::memcpy(header.nonce.data(), bytes + 32, NonceSize);
    } else {
        return false;
    }
    return header.opsLimit >= crypto_pwhash_OPSLIMIT_MIN && header.opsLimit <= WrittenOpsLimit &&
           header.memLimitKiB >= MinMemKiB && header.memLimitKiB <= WrittenMemKiB;
}

bool FileCrypto::checkKey(const unsigned char* headerBytes, const Header& header,
                          const Keys& keys) {
    unsigned char expected[8];
    keyCheck(header.format, headerBytes, keys, expected);
    const size_t at = header.format == Format::Unbound ? 56 : 48;
    return sodium_memcmp(expected, headerBytes + at, sizeof expected) == 0;
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

std::array<unsigned char, FileCrypto::MacSize> FileCrypto::bindingTag(
    const Keys& keys, const unsigned char* contentMac, const std::string& name,
    int64_t modifySecond) {
    crypto_generichash_state st;
    crypto_generichash_init(&st, keys.bind, KeySize, MacSize);
    crypto_generichash_update(&st, contentMac, MacSize);
    unsigned char numbers[16];
    putU64(numbers, name.size());
    putU64(numbers + 8, static_cast<uint64_t>(modifySecond));
    crypto_generichash_update(&st, numbers, 8);
    crypto_generichash_update(&st, reinterpret_cast<const unsigned char*>(name.data()), name.size());
    crypto_generichash_update(&st, numbers + 8, 8);
    std::array<unsigned char, MacSize> tag;
    crypto_generichash_final(&st, tag.data(), tag.size());
    return tag;
}

int64_t FileCrypto::bindingSecond(Date modifyTime) {
    double seconds = std::floor(modifyTime.timeIntervalSince1970());
    // Out-of-range times (a damaged listing) bind as 0 rather than overflow.
    if (!(seconds > -9.2e18 && seconds < 9.2e18))
        return 0;
    return static_cast<int64_t>(seconds);
}

std::vector<std::string> FileCrypto::boundNames(const std::string& serverPath,
                                                const std::string& encryptionFolder,
                                                const std::string& historyFolder) {
    std::vector<std::string> parts = splitServerPath(serverPath);
    if (parts.size() < 2 || parts[0] != encryptionFolder)
        return {};
    auto join = [&](size_t from) {
        std::string name;
        for (size_t i = from; i < parts.size(); ++i)
            name += (i > from ? "\\" : "") + parts[i];
        return name;
    };
    // "\Enc\name": a file outside any task folder is bound to its own name.
    if (parts.size() == 2)
        return {parts[1]};
    if (parts[1] != historyFolder || parts.size() < 4)
        return {join(2)};
    // A version: its folder is the original's, its name the original's with a number
    // put in before an extension dot or at the end.
    std::string folder = join(3);
    const std::string version = parts.back();
    folder.resize(folder.size() - version.size());
    std::vector<std::string> names;
    for (size_t end = 1; end <= version.size(); ++end) {
        if (end < version.size() && version[end] != '.')
            continue;
        size_t begin = end;
        while (begin > 1 && end - begin < MaxVersionDigits && version[begin - 1] >= '0' &&
               version[begin - 1] <= '9') {
            --begin;
            names.push_back(folder + version.substr(0, begin) + version.substr(end));
        }
    }
    return names;
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

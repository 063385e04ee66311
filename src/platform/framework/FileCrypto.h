#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace cirrovault {

// The stored form of a file of an encrypted task:
//
//   header  64 bytes   "CVE1", KDF id, 3 zero bytes, Argon2id ops limit (u32 LE),
//                      memory limit in KiB (u32 LE), salt (16), nonce (24),
//                      key check (8: keyed BLAKE2b of the first 56 bytes)
//   body    n bytes    the file XORed with XChaCha20 (key, nonce), counter = offset / 64
//   trailer 64 bytes   keyed BLAKE2b-512 of header and body
//
// so a stored file is exactly 128 bytes longer than the local one. The cipher is seekable,
// which lets an upload resume in the middle; the MAC covers everything, so a wrong pass
// phrase (key check) and a damaged file (MAC) are told apart and nothing unauthenticated
// is ever given out under the target's name.
//
// The pass phrase goes through Argon2id once per salt. A process uses one random salt
// per pass phrase for everything it encrypts and gives each file a fresh random nonce,
// so a backup of many small files pays the key derivation once.
class FileCrypto {
public:
    static constexpr size_t HeaderSize = 64;
    static constexpr size_t TrailerSize = 64;
    static constexpr size_t Overhead = HeaderSize + TrailerSize;
    static constexpr size_t SaltSize = 16;
    static constexpr size_t NonceSize = 24;
    static constexpr size_t KeySize = 32;

    // The keys of one (pass phrase, salt, cost) triple. Wiped when released.
    struct Keys {
        unsigned char cipher[KeySize];
        unsigned char mac[KeySize];
        unsigned char check[KeySize];
        Keys();
        ~Keys();
        Keys(const Keys&) = delete;
        Keys& operator=(const Keys&) = delete;
    };

    struct Header {
        uint32_t opsLimit = 0;
        uint32_t memLimitKiB = 0;
        std::array<unsigned char, SaltSize> salt{};
        std::array<unsigned char, NonceSize> nonce{};
    };

    // A header for a new file: this process's salt for the pass phrase, a random
    // nonce, the current cost parameters.
    static Header newHeader(const std::string& passPhrase);
    // Derives (or finds in the process cache) the keys; nullptr when the derivation
    // fails (out of memory).
    static std::shared_ptr<const Keys> keysFor(const std::string& passPhrase,
                                               const Header& header);

    static std::array<unsigned char, HeaderSize> encodeHeader(const Header& header,
                                                              const Keys& keys);
    // Reads the fields; false when the bytes are not a header this program wrote or
    // ask for costs it would not have used.
    static bool decodeHeader(const unsigned char* bytes, Header& header);
    // True when the header's key check matches these keys (the right pass phrase).
    static bool checkKey(const unsigned char* headerBytes, const Keys& keys);

    // XORs the key stream at the body offset into data (encrypts and decrypts alike).
    static void applyKeyStream(unsigned char* data, size_t n, uint64_t offset,
                               const Header& header, const Keys& keys);

    // A nonce for a file content identified by resumeTag: the one given before to the
    // same content with the same pass phrase in this process, else a new random one. An
    // interrupted upload then produces the same bytes again and can be resumed.
    static std::array<unsigned char, NonceSize> nonceForContent(const std::string& passPhrase,
                                                                const std::string& resumeTag);

    static std::string toHex(const unsigned char* bytes, size_t n);
};

} // namespace cirrovault

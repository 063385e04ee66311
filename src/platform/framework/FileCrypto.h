#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/os/Date.h"

namespace cirrovault {

// The stored form of a file of an encrypted task:
//
//   header  64 bytes   "CVE2", KDF id, Argon2id ops limit (u8), memory limit in MiB
//                      (u16 LE), salt (16), nonce (24), key check (8: keyed BLAKE2b of
//                      nothing, so it depends on the key alone), header check (8:
//                      unkeyed BLAKE2b of the 56 bytes before it)
//   body    n bytes    the file XORed with XChaCha20 (key, nonce), counter = offset / 64
//   trailer 64 bytes   content MAC (32: keyed BLAKE2b of header and body), then the
//                      binding tag (32: keyed BLAKE2b of the content MAC, the file's name
//                      relative to its task and its modification time in whole seconds)
//
// so a stored file is exactly 128 bytes longer than the local one. The cipher is seekable,
// which lets an upload resume in the middle. The header check tells a damaged header
// from a wrong pass phrase before any key is derived; the content MAC tells a damaged
// body; the binding tag tells a file put back under another name, or an older copy put
// back under a newer time. Nothing unauthenticated is ever given out under the target's
// name. The binding is the name the file had when it was encrypted, so moving a file
// into the version history keeps it valid without encrypting it again.
//
// Files written before the binding ("CVE1": key check over the header, one 64-byte MAC)
// are still read; they carry no binding.
//
// The pass phrase goes through Argon2id once per salt. A process uses one random salt
// per pass phrase for everything it encrypts and gives each file a fresh random nonce,
// so a backup of many small files pays the key derivation once.
class FileCrypto {
public:
    static constexpr size_t HeaderSize = 64;
    static constexpr size_t TrailerSize = 64;
    static constexpr size_t MacSize = 32;
    static constexpr size_t Overhead = HeaderSize + TrailerSize;
    static constexpr size_t SaltSize = 16;
    static constexpr size_t NonceSize = 24;
    static constexpr size_t KeySize = 32;

    // The keys of one (pass phrase, salt, cost) triple. Wiped when released.
    struct Keys {
        unsigned char cipher[KeySize];
        unsigned char mac[KeySize];
        unsigned char check[KeySize];
        unsigned char bind[KeySize];
        Keys();
        ~Keys();
        Keys(const Keys&) = delete;
        Keys& operator=(const Keys&) = delete;
    };

    enum class Format { Unbound = 1, Bound = 2 };

    struct Header {
        Format format = Format::Bound;
        uint32_t opsLimit = 0;
        uint32_t memLimitKiB = 0;
        std::array<unsigned char, SaltSize> salt{};
        std::array<unsigned char, NonceSize> nonce{};
    };

    // What a stored file is bound to: its name relative to its task ("Docs\a.txt")
    // and the modification time the store keeps with it.
    struct Binding {
        std::string name;
        Date modifyTime;
    };

    // A header for a new file: this process's salt for the pass phrase, a random
    // nonce, the current cost parameters.
    static Header newHeader(const std::string& passPhrase);
    // Derives (or finds in the process cache) the keys; nullptr when the derivation
    // fails (out of memory).
    static std::shared_ptr<const Keys> keysFor(const std::string& passPhrase,
                                               const Header& header);

    // Always the bound format.
    static std::array<unsigned char, HeaderSize> encodeHeader(const Header& header,
                                                              const Keys& keys);
    // Reads the fields; false when the bytes are not a header this program wrote, are
    // damaged, or ask for costs above the ones it writes. Cheap: nothing is derived.
    static bool decodeHeader(const unsigned char* bytes, Header& header);
    // True when the header's key check matches these keys (the right pass phrase).
    static bool checkKey(const unsigned char* headerBytes, const Header& header,
                         const Keys& keys);

    // XORs the key stream at the body offset into data (encrypts and decrypts alike).
    static void applyKeyStream(unsigned char* data, size_t n, uint64_t offset,
                               const Header& header, const Keys& keys);

    // The binding tag of a content MAC.
    static std::array<unsigned char, MacSize> bindingTag(const Keys& keys,
                                                         const unsigned char* contentMac,
                                                         const std::string& name,
                                                         int64_t modifySecond);
    // The whole second a modification time is bound as.
    static int64_t bindingSecond(Date modifyTime);

    // The names relative to its task a stored file may be bound to: the path below the
    // task's folder in the encryption folder ("\Enc\Task\Docs\a.txt" gives
    // "Docs\a.txt"), not the task's name, which a rename changes; for a version in the
    // history folder ("\Enc\History\Task\Docs\a13.txt") every name its number could
    // have been put into ("Docs\a1.txt", "Docs\a.txt"). Empty outside the folder.
    static std::vector<std::string> boundNames(const std::string& serverPath,
                                               const std::string& encryptionFolder,
                                               const std::string& historyFolder);

    // A nonce for a file content identified by resumeTag: the one given before to the
    // same content with the same pass phrase in this process, else a new random one. An
    // interrupted upload then produces the same bytes again and can be resumed.
    static std::array<unsigned char, NonceSize> nonceForContent(const std::string& passPhrase,
                                                                const std::string& resumeTag);

    static std::string toHex(const unsigned char* bytes, size_t n);
};

} // namespace cirrovault

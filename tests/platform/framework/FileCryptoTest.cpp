#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/TempHome.h"
#include "platform/framework/DecryptingFileSink.h"
#include "platform/framework/EncryptingFileSource.h"
#include "platform/framework/LocalFileSink.h"
#include "platform/framework/ResultCodes.h"
#include "platform/os/FileSystem.h"

namespace cirrovault {
namespace {

class FileCryptoTest : public ::testing::Test {
protected:
    std::string writeFile(const std::string& name, const std::string& content) {
        std::string path = home_.file(name);
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }

    // The whole stored form, read in uneven pieces as a store would.
    static std::string readAll(ByteSource& source, size_t piece = 7777) {
        std::string out;
        std::vector<char> buffer(piece);
        for (;;) {
            int64_t n = source.read(buffer.data(), buffer.size());
            EXPECT_GE(n, 0);
            if (n <= 0)
                return out;
            out.append(buffer.data(), static_cast<size_t>(n));
        }
    }

    std::string encrypt(const std::string& path, const std::string& phrase) {
        int64_t code = -1;
        auto source = EncryptingFileSource::open(path, phrase, code);
        EXPECT_EQ(code, ResultCode::Success);
        return source ? readAll(*source) : "";
    }

    // Feeds stored bytes to a decrypting sink; the code it ends with.
    int64_t decrypt(const std::string& stored, const std::string& target,
                    const std::string& phrase, size_t piece = 5000) {
        DecryptingFileSink sink(LocalFileSink::open(target, Date(1'500'000'000)), phrase);
        for (size_t at = 0; at < stored.size(); at += piece) {
            if (!sink.write(stored.data() + at, std::min(piece, stored.size() - at)))
                return sink.error();
        }
        return sink.finish() ? ResultCode::Success : sink.error();
    }

    size_t entriesInHome() { return FileSystem::listDirectory(home_.path())->size(); }

    test::TempHome home_;
};

std::string patterned(size_t size) {
    std::string s(size, '\0');
    for (size_t i = 0; i < size; ++i)
        s[i] = static_cast<char>((i * 131 + i / 251) & 0xff);
    return s;
}

TEST_F(FileCryptoTest, RoundTripOfEverySizeIsExactlyOneHundredTwentyEightBytesLonger) {
    for (size_t size : {size_t(0), size_t(1), size_t(63), size_t(64), size_t(65), size_t(4096),
                        size_t(3 * 65536 + 17)}) {
        SCOPED_TRACE(size);
        std::string plain = patterned(size);
        std::string path = writeFile("plain", plain);
        std::string stored = encrypt(path, "correct horse");
        ASSERT_EQ(stored.size(), size + 128);
        if (size >= 64) {
            EXPECT_EQ(stored.find(plain.substr(0, 64)), std::string::npos);
        }
        std::string target = home_.file("restored");
        ASSERT_EQ(decrypt(stored, target, "correct horse"), ResultCode::Success);
        EXPECT_EQ(FileSystem::readFile(target), plain);
        EXPECT_EQ(FileSystem::status(target)->modifyTime, Date(1'500'000'000));
    }
}

TEST_F(FileCryptoTest, SameUnchangedFileGivesTheSameBytesAndSeeksResume) {
    std::string path = writeFile("plain", patterned(200'000));
    int64_t code = 0;
    auto first = EncryptingFileSource::open(path, "phrase", code);
    auto second = EncryptingFileSource::open(path, "phrase", code);
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->resumeTag(), second->resumeTag());
    std::string whole = readAll(*first);
    ASSERT_EQ(whole.size(), 200'128u);
    // Resuming inside the header, the body (on and off a block edge) and the trailer
    // continues with exactly the bytes a full read would give.
    for (uint64_t offset : {0ull, 10ull, 64ull, 64ull + 64 * 100, 64ull + 12345, 200'070ull,
                            200'127ull, 200'128ull}) {
        SCOPED_TRACE(offset);
        ASSERT_TRUE(second->seek(offset));
        EXPECT_EQ(readAll(*second, 4096), whole.substr(offset));
    }
    EXPECT_FALSE(second->seek(200'129));

    // Other content, or another pass phrase, is never encrypted with the same stream.
    std::string other = writeFile("other", patterned(200'000));
    auto third = EncryptingFileSource::open(other, "phrase", code);
    ASSERT_TRUE(third);
    EXPECT_NE(third->resumeTag(), first->resumeTag());
    EXPECT_NE(readAll(*third).substr(64, 64), whole.substr(64, 64));
    auto fourth = EncryptingFileSource::open(path, "other phrase", code);
    ASSERT_TRUE(fourth);
    EXPECT_NE(fourth->resumeTag(), first->resumeTag());

    EXPECT_EQ(EncryptingFileSource::open(home_.file("missing"), "phrase", code), nullptr);
    EXPECT_EQ(code, ResultCode::LocalFileError);
}

TEST_F(FileCryptoTest, WrongPhraseAndDamageAreRefusedWithoutTouchingTheTarget) {
    std::string plain = patterned(100'000);
    std::string stored = encrypt(writeFile("plain", plain), "right");
    std::string target = home_.file("target");
    std::ofstream(target) << "earlier version";
    size_t entries = entriesInHome();

    auto expectRefused = [&](const std::string& bytes, const std::string& phrase, int64_t code) {
        EXPECT_EQ(decrypt(bytes, target, phrase), code);
        EXPECT_EQ(FileSystem::readFile(target), "earlier version");
        EXPECT_EQ(entriesInHome(), entries); // no temporary file left behind
    };
    expectRefused(stored, "wrong", ResultCode::WrongPassPhrase);
    for (size_t at : {size_t(64), size_t(50'000), stored.size() - 64, stored.size() - 1}) {
        SCOPED_TRACE(at);
        std::string damaged = stored;
        damaged[at] ^= 0x01;
        expectRefused(damaged, "right", ResultCode::DamagedFile);
    }
    expectRefused(stored.substr(0, stored.size() - 1), "right", ResultCode::DamagedFile);
    expectRefused(stored.substr(0, 100), "right", ResultCode::DamagedFile);
    expectRefused(stored + "x", "right", ResultCode::DamagedFile);
    expectRefused(plain, "right", ResultCode::DamagedFile); // never encrypted at all

    // A header asking for an absurd key-derivation cost is not obeyed.
    std::string costly = stored;
    costly[15] = '\x7f';
    expectRefused(costly, "right", ResultCode::DamagedFile);
}

} // namespace
} // namespace cirrovault

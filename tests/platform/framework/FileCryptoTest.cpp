#include <fstream>

#include <gtest/gtest.h>
#include <sodium.h>

#include "common/TempHome.h"
#include "platform/framework/DecryptingFileSink.h"
#include "platform/framework/EncryptingFileSource.h"
#include "platform/framework/FileCrypto.h"
#include "platform/framework/LocalFileSink.h"
#include "platform/os/ResultCodes.h"
#include "platform/os/FileSystem.h"

using namespace cirrovault;

namespace {

class FileCryptoTest : public ::testing::Test {
protected:
    std::string writeFile(const std::string& name, const std::string& content) {
        std::ofstream(home_.file(name), std::ios::binary) << content;
        return home_.file(name);
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

    // The stored form of a local file, bound to name and to Written.
    std::string encrypt(const std::string& path, const std::string& phrase,
                        const std::string& name = "Docs\\plain") {
        EXPECT_TRUE(FileSystem::setModifyTime(path, Written));
        int64_t code = -1;
        auto source = EncryptingFileSource::open(path, phrase, name, code);
        EXPECT_EQ(code, ResultCode::Success);
        return source ? readAll(*source) : "";
    }
    // The code a decrypting sink ends with, fed stored bytes listed with names and time.
    int64_t decrypt(const std::string& stored, const std::string& target,
                    const std::string& phrase, std::vector<std::string> names = {"Docs\\plain"},
                    Date listed = Written, size_t piece = 5000) {
        DecryptingFileSink sink(LocalFileSink::open(target, Date(1'500'000'000)), phrase,
                                std::move(names), listed);
        misplaced_ = false;
        for (size_t at = 0; at < stored.size(); at += piece)
            if (!sink.write(stored.data() + at, std::min(piece, stored.size() - at)))
                return sink.error();
        bool done = sink.finish();
        misplaced_ = sink.misplaced();
        return done ? ResultCode::Success : sink.error();
    }

    static constexpr Date Written{1'600'000'000.25};
    test::TempHome home_;
    bool misplaced_ = false;
};

std::string patterned(size_t size) {
    std::string s(size, '\0');
    for (size_t i = 0; i < size; ++i)
        s[i] = static_cast<char>((i * 131 + i / 251) & 0xff);
    return s;
}

TEST_F(FileCryptoTest, RoundTripOfEverySizeIs128BytesLongerAndTheUnboundFormatStillOpens) {
    for (size_t size : std::vector<size_t>{0, 1, 63, 64, 65, 4096, 3 * 65536 + 17}) {
        SCOPED_TRACE(size);
        std::string plain = patterned(size), target = home_.file("restored");
        std::string stored = encrypt(writeFile("plain", plain), "correct horse");
        ASSERT_EQ(stored.size(), size + 128);
        EXPECT_TRUE(size < 64 || stored.find(plain.substr(0, 64)) == std::string::npos);
        ASSERT_EQ(decrypt(stored, target, "correct horse"), ResultCode::Success);
        EXPECT_EQ(std::make_pair(FileSystem::readFile(target).value_or(""),
                                 FileSystem::status(target)->modifyTime),
                  std::make_pair(plain, Date(1'500'000'000)));
    }
    std::string unbound = *FileSystem::readFile(std::string(CV_SOURCE_ROOT) +
                                                "/tests/platform/framework/data/unbound-format.cve");
    std::string target = home_.file("target");
    ASSERT_EQ(decrypt(unbound, target, "legacy phrase", {"any"}), ResultCode::Success);
    EXPECT_EQ(FileSystem::readFile(target), "A file encrypted before names were bound.\n");
    EXPECT_EQ(decrypt(unbound, target, "other phrase"), ResultCode::WrongPassPhrase);
    ASSERT_EQ(unbound.substr(0, 4), "CVE1");
    std::string damaged = unbound;
    damaged[80] ^= 1;
    EXPECT_EQ(decrypt(damaged, target, "legacy phrase"), ResultCode::DamagedFile);
}

TEST_F(FileCryptoTest, SameUnchangedFileGivesTheSameBytesAndSeeksResume) {
    std::string path = writeFile("plain", patterned(200'000));
    int64_t code = 0;
    auto open = [&](const std::string& file, const std::string& phrase) {
        return EncryptingFileSource::open(file, phrase, "p", code);
    };
    auto first = open(path, "phrase"), second = open(path, "phrase");
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->resumeTag(), second->resumeTag());
    std::string whole = readAll(*first);
    ASSERT_EQ(whole.size(), 200'128u);
    // A resume in the header, the body (on and off a block edge) or the trailer goes on exactly.
    for (uint64_t offset :
         {0ull, 10ull, 64ull, 64ull + 64 * 100, 64ull + 12345, 200'070ull, 200'127ull, 200'128ull})
        EXPECT_TRUE(second->seek(offset) && readAll(*second, 4096) == whole.substr(offset))
            << offset;
    EXPECT_FALSE(second->seek(200'129));

    // Other content, or another pass phrase, is never encrypted with the same stream.
    auto third = open(writeFile("other", patterned(200'000)), "phrase");
    auto fourth = open(path, "other phrase");
    ASSERT_TRUE(third && fourth);
    EXPECT_TRUE(third->resumeTag() != first->resumeTag() &&
                fourth->resumeTag() != first->resumeTag());
    EXPECT_NE(readAll(*third).substr(64, 64), whole.substr(64, 64));
    EXPECT_EQ(open(home_.file("missing"), "phrase"), nullptr);
    EXPECT_EQ(code, ResultCode::LocalFileError);
}

TEST_F(FileCryptoTest, WrongPhraseDamageRaisedCostsAndAnotherNameOrTimeAreRefusedUntouched) {
    std::string plain = patterned(100'000), stored = encrypt(writeFile("plain", plain), "right");
    std::string target = writeFile("target", "earlier version");
    auto entries = FileSystem::listDirectory(home_.path());
    auto expectRefused = [&](const std::string& bytes, const std::string& phrase, int64_t code) {
        EXPECT_EQ(decrypt(bytes, target, phrase), code);
        EXPECT_EQ(FileSystem::readFile(target), "earlier version");
        EXPECT_EQ(FileSystem::listDirectory(home_.path()), entries); // no temporary left
    };
    expectRefused(stored, "wrong", ResultCode::WrongPassPhrase);
    // Damage anywhere, the salt (8) and nonce (30) included, is damage, not a wrong phrase.
    for (size_t at : std::vector<size_t>{0, 5, 8, 30, 50, 60, 64, 50'000, stored.size() - 64,
                                         stored.size() - 1}) {
        SCOPED_TRACE(at);
        std::string damaged = stored;
        damaged[at] ^= 0x01;
        expectRefused(damaged, "right", ResultCode::DamagedFile);
        EXPECT_EQ(misplaced_, at >= stored.size() - 32); // the binding tag itself
    }
    // Cut short, longer, or never encrypted at all.
    for (const std::string& bytes :
         {stored.substr(0, stored.size() - 1), stored.substr(0, 100), stored + "x", plain})
        expectRefused(bytes, "right", ResultCode::DamagedFile);

    // Costs raised, header check redone (a hostile store): refused before any key is derived.
    // Lower costs are derived, and the key check tells the keys are not the file's.
    auto withCosts = [&](unsigned char ops, uint16_t memMiB) {
        std::string bytes = stored;
        bytes.replace(5, 3, std::string{char(ops), char(memMiB & 0xff), char(memMiB >> 8)});
        auto* p = reinterpret_cast<unsigned char*>(bytes.data());
        crypto_generichash(p + 56, 8, p, 56, nullptr, 0);
        return bytes;
    };
    using namespace ResultCode;
    for (auto [ops, memMiB, code] : std::vector<std::tuple<int, int, int64_t>>{
             {3, 64, DamagedFile}, {2, 65, DamagedFile}, {255, 65535, DamagedFile},
             {0, 64, DamagedFile}, {1, 8, WrongPassPhrase}})
        expectRefused(withCosts(ops, memMiB), "right", code);
    EXPECT_EQ(decrypt(withCosts(2, 64), target, "right"), Success);

    // The code, "m" when the tag tells misplaced. A version is asked under every name its
    // number fits; a second either way opens (stores round times); swapped or put back does not.
    std::string b = encrypt(writeFile("b", "content of b"), "right", "Docs\\b.txt");
    auto opened = [&](const std::string& bytes, double shift,
                      std::vector<std::string> names = {"Docs\\plain"}) {
        int64_t code = decrypt(bytes, target, "right", names, Written.addingTimeInterval(shift));
        return std::to_string(code) + (misplaced_ ? "m" : "");
    };
    const std::string ok = "0", misplaced = std::to_string(DamagedFile) + "m";
    EXPECT_EQ((std::vector{opened(stored, 0), opened(stored, 0, {"Docs\\plain1", "Docs\\plain"}),
                           opened(stored, 0.9), opened(stored, -1), opened(b, 0),
                           opened(stored, 3600), opened(stored, -2), opened(stored, 0, {})}),
              (std::vector{ok, ok, ok, ok, misplaced, misplaced, misplaced, misplaced}));
    EXPECT_TRUE(FileSystem::readFile(target) == plain); // the last restore, untouched
}

TEST(FileCryptoNames, BoundNameIsThePathBelowTheTaskAndAVersionKeepsItsOriginal) {
    auto names = [](const std::string& path) {
        return FileCrypto::boundNames(path, "Enc", "History");
    };
    using V = std::vector<std::string>;
    EXPECT_EQ(names("\\Enc\\Task\\Docs\\a.txt"), V{"Docs\\a.txt"});
    EXPECT_EQ(names("\\Enc\\Renamed task\\Docs\\a.txt"), V{"Docs\\a.txt"});
    EXPECT_EQ(names("\\Enc\\loose.txt"), V{"loose.txt"});
    EXPECT_EQ(names("\\Enc\\History\\Task\\Docs\\a3.txt"), V{"Docs\\a.txt"});
    EXPECT_EQ(names("\\Enc\\History\\Task\\a13.tar.gz"), (V{"a1.tar.gz", "a.tar.gz"}));
    // No number to take off, no name left without it, not encrypted, no file.
    for (const char* none : {"\\Enc\\History\\Task\\Docs\\README", "\\Enc\\History\\Task\\7",
                             "\\Plain\\Task\\a.txt", "\\Enc"})
        EXPECT_EQ(names(none), V{}) << none;
}

} // namespace

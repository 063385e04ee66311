// An encrypted file as a hostile store may serve it. Input: one byte giving the size of
// the pieces it arrives in, then the stored bytes. Whatever they are, the sink either
// restores a file that passed every check or leaves nothing at all behind.
#include <cstdlib>
#include <filesystem>

#include "FuzzInput.h"
#include "platform/framework/DecryptingFileSink.h"
#include "platform/framework/LocalFileSink.h"
#include "platform/os/ResultCodes.h"

static std::string folder;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    char pattern[] = "/tmp/cirrovault-fuzz-XXXXXX";
    if (!mkdtemp(pattern))
        std::abort();
    folder = pattern;
    std::atexit([] { std::filesystem::remove_all(folder); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0)
        return 0;
    const size_t piece = 1 + data[0] % 200;
    const std::string target = folder + "/restored";
    // The seeds are bound to the name "a" and the time 1600000000.
    DecryptingFileSink sink(LocalFileSink::open(target, Date(1'600'000'000)), "fuzz", {"a"},
                            Date(1'600'000'000));
    bool ok = true;
    for (size_t at = 1; at < size && ok; at += piece)
        ok = sink.write(reinterpret_cast<const char*>(data) + at, std::min(piece, size - at));
    ok = ok && sink.finish();
    if (ok != (sink.error() == ResultCode::Success))
        fuzz::broken("the sink's answer and its error disagree");
    if (!ok && !std::filesystem::is_empty(folder))
        fuzz::broken("a refused file left something behind");
    if (ok) {
        if (size - 1 < FileCrypto::Overhead ||
            std::filesystem::file_size(target) != size - 1 - FileCrypto::Overhead)
            fuzz::broken("a restored file is not 128 bytes shorter than its stored form");
        std::filesystem::remove(target);
    }
    return 0;
}

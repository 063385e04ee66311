#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/os/SystemLog.h"

namespace cirrovault::fuzz {

// Every harness: findings go to the fuzzer's output, not to the system log.
inline const bool quiet = (SystemLog::setSyslogEnabled(false), true);

// The fuzzer's bytes as text, and cut into fields at a separator byte, so one input can
// carry several arguments and a seed stays readable.
inline std::string text(const uint8_t* data, size_t size) {
    return std::string(reinterpret_cast<const char*>(data), size);
}

inline std::vector<std::string> fields(std::string_view input, char separator,
                                       size_t most = 64) {
    std::vector<std::string> out;
    size_t at = 0;
    while (out.size() + 1 < most) {
        size_t end = input.find(separator, at);
        if (end == std::string_view::npos)
            break;
        out.emplace_back(input.substr(at, end - at));
        at = end + 1;
    }
    out.emplace_back(input.substr(at));
    return out;
}

// Stops the run as a finding: a property the code promises does not hold.
[[noreturn]] inline void broken(const char* what) {
    __builtin_printf("property broken: %s\n", what);
    __builtin_trap();
}

} // namespace cirrovault::fuzz

// Only harnesses include this header, and each of them works in the project's names.
using namespace cirrovault;

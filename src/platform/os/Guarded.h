#pragma once

#include <exception>
#include <string_view>
#include <type_traits>

#include "platform/os/SystemLog.h"

namespace cirrovault {

// The boundary of a public operation: runs body; an exception is written to the system
// log as line and answered with fallback, so nothing escapes to the caller.
template <typename T, typename Body> T guarded(std::string_view line, T fallback, Body&& body) {
    try {
        return body();
    } catch (const std::exception&) {
        SystemLog::write(line);
        return fallback;
    }
}

// The same for an operation that answers nothing.
template <typename Body>
requires std::is_void_v<std::invoke_result_t<Body>>
void guarded(std::string_view line, Body&& body) {
    try {
        body();
    } catch (const std::exception&) {
        SystemLog::write(line);
    }
}

} // namespace cirrovault

#pragma once

#include <cstdint>

namespace cirrovault {

// The account's space figures, in bytes.
struct AccountBalance {
    int64_t maxSpace = 0;
    int64_t fileSpaceUsed = 0;
    int64_t msgSpaceUsed = 0;
};

} // namespace cirrovault

#pragma once

#include <cstdint>

namespace cirrovault {

// Numbers from the system's random source. Identities drawn here differ between two
// computers (or two tasks) set up in the same second, which a clock-seeded generator
// cannot promise.
class SystemRandom {
public:
    // A number from 1 to 2147483647: zero is kept for "no identity yet".
    static int32_t positiveInt32();
};

} // namespace cirrovault

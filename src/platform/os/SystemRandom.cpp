#include "platform/os/SystemRandom.h"

#include <sodium.h>

namespace cirrovault {

int32_t SystemRandom::positiveInt32() {
    // randombytes_* initialise libsodium themselves when sodium_init has not run yet.
    return static_cast<int32_t>(randombytes_uniform(0x7fffffffu)) + 1;
}

} // namespace cirrovault

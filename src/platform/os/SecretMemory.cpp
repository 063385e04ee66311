#include "platform/os/SecretMemory.h"

#include <sodium.h>
#include <sys/prctl.h>
#include <sys/resource.h>

namespace cirrovault {

bool SecretMemory::protectProcess() {
    rlimit none{0, 0};
    bool noCore = ::setrlimit(RLIMIT_CORE, &none) == 0;
    bool hidden = ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) == 0;
    return noCore && hidden;
}

void SecretMemory::wipe(std::string& secret) {
    if (!secret.empty())
        sodium_memzero(secret.data(), secret.size());
    secret.clear();
}

} // namespace cirrovault

#pragma once

#include <string>

namespace cirrovault {

// Keeps secrets (the account password, pass phrases) out of places other users or a
// crash could leave them: core files, another process reading this one's memory, and
// buffers that were freed but not cleared.
class SecretMemory {
public:
    // Makes the process non-dumpable (no core file, no ptrace or /proc/<pid>/mem by other
    // processes of the same user) and sets the core-file limit to zero. Idempotent; false
    // when the system refused.
    static bool protectProcess();
    // Overwrites the bytes with zeros in a way the compiler cannot drop, then empties it.
    static void wipe(std::string& secret);
};

} // namespace cirrovault

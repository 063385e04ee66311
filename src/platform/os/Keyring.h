#pragma once

#include <optional>
#include <string>

namespace cirrovault {

// The desktop keyring (the Secret Service on the session bus). Secrets are filed under
// a kind ("account", "phrase") and a key. Every call waits a bounded time: a keyring
// that does not answer (no session, a locked keyring asking for a prompt nobody sees)
// is given up for the rest of the process, and callers keep the secret elsewhere.
// CIRROVAULT_KEYRING=off makes it unreachable (the tests, and users who want the file).
class Keyring {
public:
    // Whether a keyring is worth asking: a session bus, and no earlier call that hung.
    static bool reachable();
    static bool store(const std::string& kind, const std::string& key, const std::string& label,
                      const std::string& secret);
    // Nothing when there is no such secret or the keyring cannot be asked.
    static std::optional<std::string> lookup(const std::string& kind, const std::string& key);
    // True when the secret is gone (or was never there).
    static bool remove(const std::string& kind, const std::string& key);
};

} // namespace cirrovault

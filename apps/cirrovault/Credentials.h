#pragma once

#include <optional>
#include <string>

namespace cirrovault::cli {

// Who logs on, and with which password. The password comes from CIRROVAULT_PASSWORD,
// else from the account kept by `cirrovault logon` (a 0600 file in the configuration
// folder), else from a prompt at a terminal. It is never printed or logged.
class Credentials {
public:
    // --user, else the kept account, else the last user who logged on here, else the
    // login name.
    static std::string userName(const std::string& option);
    static std::optional<std::string> password(const std::string& user, bool mayPrompt);
    // Keeps the account for the daemon and later commands (mode 0600).
    static bool remember(const std::string& user, const std::string& password);
    static bool forget();
    static bool remembered(const std::string& user);
    // The pass phrase of an encrypted task for this command: the file named by
    // --passphrase-file (its first line), else CIRROVAULT_PASSPHRASE, else the phrase kept
    // on this computer, else asked at a terminal (then asked is set); nothing when none
    // of them gives one. Throws CliError when the file cannot be read.
    static std::optional<std::string> passPhrase(const std::string& file, const std::optional<std::string>& kept,
                                                 const std::string& question, bool* asked = nullptr);
    // Reads a secret from the terminal without echo; nothing without a terminal.
    static std::optional<std::string> prompt(const std::string& question);
};

} // namespace cirrovault::cli

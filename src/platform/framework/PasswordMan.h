#pragma once

#include <optional>
#include <string>

namespace cirrovault {

// The account the command line hands to the daemon so that it can log on alone.
struct AccountCredentials {
    std::string userName;
    std::string password;
};

// Secrets kept on this computer: the pass phrases of encrypted tasks, each under the
// key path of its task (server folder joined with the task name), and the account
// credentials of the daemon. Their index lives in "passwords.plist" in the user's
// configuration folder ($XDG_CONFIG_HOME/cirrovault), mode 0600 from the moment the
// file exists, rewritten whole and atomically. The secrets themselves go to the desktop
// keyring when one answers, else into that file. No secret ever reaches a log line, and
// the process holding them is made non-dumpable.
//
// Every instance reads and writes the same file, so the command line and the daemon see
// each other's changes; the file is read again on every call.
class PasswordMan {
public:
    // isEncrypt tells whether the phrase encrypts the files stored under keyPath (the
    // task's folder is in the encrypted area) or is only remembered for it. An empty
    // key path or pass phrase is refused.
    bool SetPassword(const std::string& keyPath, bool isEncrypt, const std::string& inPassword);
    std::optional<std::string> GetPassword(const std::string& keyPath) const;
    // Whether the phrase of keyPath encrypts; nothing when there is no phrase.
    std::optional<bool> IsEncrypt(const std::string& keyPath) const;
    // The phrase of the longest key path that is path itself or one of its parent
    // folders ("\" or "/" separated): the phrase a file of a task is stored with.
    std::optional<std::string> FindPasswordForPath(const std::string& path) const;
    bool RemovePassword(const std::string& keyPath);

    bool SetAccount(const std::string& userName, const std::string& password);
    std::optional<AccountCredentials> GetAccount() const;
    bool RemoveAccount();
    // Whether the kept account's password is in the desktop keyring (else in the file).
    bool AccountInKeyring() const;

    // The password of the report mail server, whose user name is in the setting
    // "SMTPURL": kept like the account's, never in the settings file.
    bool SetMailPassword(const std::string& password);
    std::optional<std::string> GetMailPassword() const;
    bool RemoveMailPassword();

    static std::string PasswordFilePath();
};

} // namespace cirrovault

#include "Credentials.h"

#include <cstdlib>
#include <termios.h>
#include <unistd.h>

#include "Output.h"
#include "platform/framework/PasswordMan.h"
#include "platform/framework/UserSettingMan.h"
#include "platform/os/FileSystem.h"
#include "platform/os/Host.h"
#include "platform/view/terminal/TerminalConsole.h"

namespace cirrovault::cli {

std::string Credentials::userName(const std::string& option) {
    if (!option.empty())
        return option;
    if (auto account = PasswordMan().GetAccount(); account && !account->userName.empty())
        return account->userName;
    if (auto info = UserSettingMan::GetUserInfo(); info && !info->userName.empty())
        return info->userName;
    return Host::userLoginName();
}

std::optional<std::string> Credentials::password(const std::string& user, bool mayPrompt) {
    if (const char* env = std::getenv("CIRROVAULT_PASSWORD"); env && *env)
        return std::string(env);
    if (auto account = PasswordMan().GetAccount(); account && account->userName == user &&
                                                   !account->password.empty())
        return account->password;
    if (mayPrompt)
        return prompt("Password for " + user + ": ");
    return std::nullopt;
}

std::optional<std::string> Credentials::passPhrase(const std::string& file, const std::optional<std::string>& kept,
                                                   const std::string& question, bool* asked) {
    if (!file.empty()) {
        auto content = FileSystem::readFile(file);
        if (!content)
            throw CliError(Exit::Usage, text("CliPassPhraseFile", "the pass phrase file {} cannot be read", file));
        // An editor's final newline is not part of the phrase.
        std::string phrase = content->substr(0, content->find_first_of("\r\n"));
        if (phrase.empty())
            throw CliError(Exit::Usage, text("CliPassPhraseFileEmpty", "the pass phrase file {} is empty", file));
        return phrase;
    }
    if (const char* env = std::getenv("CIRROVAULT_PASSPHRASE"); env && *env)
        return std::string(env);
    if (kept && !kept->empty())
        return kept;
    if (asked)
        *asked = true;
    return prompt(question);
}

bool Credentials::remember(const std::string& user, const std::string& password) {
    return PasswordMan().SetAccount(user, password);
}

bool Credentials::forget() {
    PasswordMan passwords;
    return !passwords.GetAccount() || passwords.RemoveAccount();
}

bool Credentials::remembered(const std::string& user) {
    auto account = PasswordMan().GetAccount();
    return account && account->userName == user;
}

std::optional<std::string> Credentials::prompt(const std::string& question) {
    if (!TerminalConsole::isTty(0) || !TerminalConsole::isTty(2))
        return std::nullopt;
    std::lock_guard lock(TerminalConsole::lock());
    TerminalConsole::write(2, question);
    termios saved{};
    bool restore = tcgetattr(0, &saved) == 0;
    if (restore) {
        termios quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(0, TCSANOW, &quiet);
    }
    std::optional<std::string> line = TerminalConsole::readLine(0);
    if (restore)
        tcsetattr(0, TCSANOW, &saved);
    TerminalConsole::write(2, "\n");
    if (!line || line->empty())
        return std::nullopt;
    return line;
}

} // namespace cirrovault::cli

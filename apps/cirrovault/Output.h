#pragma once

#include <stdexcept>
#include <string>

#include "Json.h"
#include "platform/framework/LoadString.h"

namespace cirrovault::cli {

// Exit codes of every command (listed in --help and the README).
namespace Exit {
inline constexpr int Ok = 0;
inline constexpr int Failed = 1;    // the work was done but failed, or was not all done
inline constexpr int Usage = 2;     // bad input: options, names, dates, folders
inline constexpr int Logon = 3;     // cannot reach the service or log on
inline constexpr int Busy = 4;      // another cirrovault runs this account's tasks
inline constexpr int Cancelled = 5; // stopped by the user (Ctrl-C, Cancel)
inline constexpr int Damaged = 6;   // a local settings file cannot be read; left untouched
} // namespace Exit

inline constexpr const char* ExitCodesHelp =
    "Exit codes: 0 done; 1 the work failed or was not all done; 2 bad input (unknown task, "
    "bad date, missing folder, bad option); 3 cannot reach the service or log on; 4 another "
    "cirrovault is running this account's tasks; 5 cancelled by the user; 6 a local settings "
    "file is damaged (it is left as it is).";

// A failure a command reports to the user: one message, one exit code.
class CliError : public std::runtime_error {
public:
    CliError(int exitCode, const std::string& message)
        : std::runtime_error(message), exitCode_(exitCode) {}
    int exitCode() const { return exitCode_; }

private:
    int exitCode_;
};

// A text for the user: the string table's text for key, else the English text given,
// with its "{}" placeholders filled in order.
template <typename... Args>
std::string text(const std::string& key, const std::string& english, const Args&... args) {
    return LoadString::FormatText(LoadString::GetValueByKey(key, english), args...);
}

// Where command results go: lines for people on stdout, or one JSON document for
// scripts (--json). Errors always go to stderr; in JSON mode an error document is also
// printed on stdout so that a script reading stdout sees why. Quiet keeps only errors.
class Output {
public:
    explicit Output(bool json, bool quiet = false) : json_(json), quiet_(quiet) {}
    bool json() const { return json_; }

    // A line for people (nothing in JSON mode or when quiet).
    void line(const std::string& text) const;
    // The command's result document (printed in JSON mode only).
    void result(const Json& document) const;
    void error(int exitCode, const std::string& message) const;

private:
    bool json_;
    bool quiet_;
};

} // namespace cirrovault::cli

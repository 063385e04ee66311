#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace cirrovault {

// The one way a diagnostic line leaves the program: syslog (ident "cirrovault"),
// stderr in verbose mode, and an in-memory capture that tests read.
class SystemLog {
public:
    static void write(std::string_view line);
    // The syslog priority of a line: "Error..." lines are errors and "Warning..." lines
    // warnings, so the journal can pick them out; the rest is information.
    static int priority(std::string_view line);

    static void setVerbose(bool verbose);
    static bool isVerbose();
    // Syslog is on by default; tests and benchmarks may keep the system log quiet.
    static void setSyslogEnabled(bool enabled);

    static void startCapture(); // clears what was captured before
    static void stopCapture();
    static std::vector<std::string> captured();
    static bool capturedContains(std::string_view text); // any line containing text
    static size_t capturedCount(std::string_view line);  // lines equal to line
};

} // namespace cirrovault

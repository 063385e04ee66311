#include "DaemonClient.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "DaemonControl.h"
#include "RunLock.h"
#include "Signals.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"
#include "platform/os/UnixSocket.h"

namespace cirrovault::cli {

namespace {

constexpr double kSilence = 15;     // the daemon says something every second while it follows
constexpr double kStopWait = 120;   // for a stopped run to end once the daemon was asked
constexpr double kReadStep = 0.25;  // how soon a signal is seen

using SteadyClock = std::chrono::steady_clock;

double secondsSince(SteadyClock::time_point since) {
    return std::chrono::duration<double>(SteadyClock::now() - since).count();
}

} // namespace

std::optional<int> DaemonClient::backup(const std::string& accountFolder, const std::string& taskName, bool list,
                                        const Output& out) {
    std::string path = DaemonControl::socketPath(accountFolder);
    if (path.empty())
        return std::nullopt;
    UnixSocket::Connect how = UnixSocket::Connect::Failed;
    UnixSocket daemon = UnixSocket::connect(path, &how);
    if (!daemon.valid()) {
        // Nobody listens and no daemon holds the account: a daemon that was killed left it.
        if (how == UnixSocket::Connect::Refused && !RunLock::holder(accountFolder, RunLock::kDaemonFile)) {
            SystemLog::write("cirrovault: removed the socket of a daemon that has ended: " + path);
            FileSystem::removeItem(path);
        }
        return std::nullopt;
    }
    if (!daemon.sendLine("backup " + DaemonControl::escape(taskName)))
        return std::nullopt;
    std::string gone = text("CliDaemonGone", "the daemon stopped answering before the backup of \"{}\" ended; see `cirrovault log`",
                            taskName);
    auto heard = SteadyClock::now();
    std::optional<SteadyClock::time_point> stopAsked;
    for (;;) {
        std::string line;
        UnixSocket::Read got = daemon.readLine(line, kReadStep);
        if (got == UnixSocket::Read::Closed)
            throw CliError(Exit::Failed, gone);
        if (got == UnixSocket::Read::Timeout) {
            if (Signals::pending() && !stopAsked) {
                stopAsked = SteadyClock::now();
                daemon.sendLine("stop");
            }
            if (stopAsked && secondsSince(*stopAsked) > kStopWait)
                throw CliError(Exit::Cancelled, text("CliDaemonStopLate", "asked the daemon to stop \"{}\"; it has not ended yet",
                                                     taskName));
            if (!stopAsked && secondsSince(heard) > kSilence)
                throw CliError(Exit::Failed, gone);
            continue;
        }
        heard = SteadyClock::now();
        size_t space = line.find(' ');
        std::string verb = line.substr(0, space);
        std::string rest = space == std::string::npos ? "" : line.substr(space + 1);
        if (verb == "line") {
            out.line(DaemonControl::unescape(rest));
        } else if (verb == "file") {
            if (list && !out.json()) {
                std::printf("  sending  %s\n", DaemonControl::unescape(rest).c_str());
                std::fflush(stdout);
            }
        } else if (verb == "result") {
            out.result(Json::parse(rest));
        } else if (verb == "done") {
            size_t gap = rest.find(' ');
            int code = std::atoi(rest.substr(0, gap).c_str());
            std::string words = gap == std::string::npos ? "" : DaemonControl::unescape(rest.substr(gap + 1));
            if (code != Exit::Ok)
                throw CliError(code, words);
            out.line(words);
            return code;
        }
        // "progress" only shows the daemon is there.
    }
}

} // namespace cirrovault::cli

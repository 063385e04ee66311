#include "platform/os/UserUnits.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <limits.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "platform/os/CallCancel.h"
#include "platform/os/Host.h"
#include "platform/os/SystemLog.h"

extern char** environ;

namespace cirrovault {

std::string UserUnits::folder() { return Host::configFolder() + "/systemd/user"; }

std::string UserUnits::runningProgram() {
    char path[PATH_MAX];
    ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0)
        return "";
    return std::string(path, static_cast<size_t>(n));
}

bool UserUnits::systemctl(const std::vector<std::string>& args, double timeoutSeconds) {
    std::vector<std::string> words = {"systemctl", "--user"};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawnp(&pid, "systemctl", nullptr, nullptr, argv.data(), environ) != 0) {
        SystemLog::write("Error: UserUnits: cannot start systemctl");
        return false;
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
    int status = 0;
    for (;;) {
        pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid)
            return WIFEXITED(status) && WEXITSTATUS(status) == 0;
        if (done < 0 && errno != EINTR)
            return false;
        bool cancelled = CallCancel::requested();
        if (cancelled || std::chrono::steady_clock::now() >= deadline) {
            // A user manager that does not answer must not hold the command for ever, nor
            // past the user's Ctrl-C.
            SystemLog::write(cancelled ? "UserUnits: systemctl stopped on request"
                                       : "Error: UserUnits: systemctl did not answer in time");
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

} // namespace cirrovault

#include "platform/os/UrlOpener.h"

#include <cerrno>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "platform/os/SystemLog.h"

extern char** environ;

namespace cirrovault {

namespace {

std::mutex openerMutex;
std::string openerProgram = "xdg-open"; // guarded by openerMutex

bool isExecutable(const std::string& path) { return ::access(path.c_str(), X_OK) == 0; }

// The program's full path, looked up in PATH when it has no "/".
std::string resolve(const std::string& program) {
    if (program.find('/') != std::string::npos)
        return isExecutable(program) ? program : "";
    const char* path = std::getenv("PATH");
    std::string folders = path ? path : "/usr/local/bin:/usr/bin:/bin";
    size_t at = 0;
    while (at <= folders.size()) {
        size_t end = folders.find(':', at);
        if (end == std::string::npos)
            end = folders.size();
        std::string folder = folders.substr(at, end - at);
        std::string candidate = (folder.empty() ? "." : folder) + "/" + program;
        if (isExecutable(candidate))
            return candidate;
        at = end + 1;
    }
    return "";
}

} // namespace

void UrlOpener::setOpenerProgram(const std::string& program) {
    std::lock_guard lock(openerMutex);
    openerProgram = program.empty() ? "xdg-open" : program;
}

bool UrlOpener::open(const std::string& url) {
    try {
        if (url.empty())
            return false;
        std::string program;
        {
            std::lock_guard lock(openerMutex);
            program = resolve(openerProgram);
        }
        if (program.empty()) {
            SystemLog::write("UrlOpener: no program to open web addresses");
            return false;
        }
        // A short-lived shell starts the opener in the background and exits at once:
        // we reap the shell, the system reaps the opener, and nobody waits for a browser.
        std::string script = "\"$0\" \"$1\" </dev/null >/dev/null 2>&1 &";
        std::vector<std::string> args = {"sh", "-c", script, program, url};
        std::vector<char*> argv;
        for (std::string& arg : args)
            argv.push_back(arg.data());
        argv.push_back(nullptr);
        pid_t pid = 0;
        if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, argv.data(), environ) != 0) {
            SystemLog::write("UrlOpener: cannot start the opener");
            return false;
        }
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    } catch (const std::exception&) {
        SystemLog::write("Error: UrlOpener::open");
        return false;
    }
}

} // namespace cirrovault

#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "platform/os/FileSystem.h"

namespace cirrovault::test {

// Each part must show in text.
inline void has(const std::string& text, std::initializer_list<std::string> parts) {
    for (const auto& part : parts)
        EXPECT_NE(text.find(part), std::string::npos) << "no \"" << part << "\" in:\n" << text;
}

// Runs the built cirrovault as a user would: its own process, the test's environment
// (TempHome's HOME and XDG folders) plus the given variables, stdin from /dev/null.
class CliRunner {
public:
    struct Result {
        int code = -1;
        std::string out, err;
    };

    explicit CliRunner(std::string scratch) : scratch_(std::move(scratch)) {}

    // Extra "NAME=value" entries for every later run.
    void setEnv(const std::string& entry) { env_.push_back(entry); }

    Result run(const std::vector<std::string>& args) { return finish(start(args)); }

    // Starts without waiting; finish() collects the result.
    pid_t start(const std::vector<std::string>& args) {
        ++runs_;
        std::string out = outPath(), err = errPath();
        pid_t pid = fork();
        if (pid == 0) {
            int in = open("/dev/null", O_RDONLY);
            int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            dup2(in, 0);
            dup2(o, 1);
            dup2(e, 2);
            for (const auto& entry : env_)
                putenv(const_cast<char*>(entry.c_str()));
            std::vector<char*> argv;
            std::string binary = CIRROVAULT_BINARY;
            argv.push_back(binary.data());
            std::vector<std::string> copy = args;
            for (auto& a : copy)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(binary.c_str(), argv.data());
            _exit(127);
        }
        pending_ = {out, err};
        return pid;
    }

    Result finish(pid_t pid) {
        Result result;
        int status = 0;
        waitpid(pid, &status, 0);
        result.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        result.out = FileSystem::readFile(pending_.first).value_or("");
        result.err = FileSystem::readFile(pending_.second).value_or("");
        return result;
    }

    // What a started process has printed so far.
    std::string outputSoFar() const { return FileSystem::readFile(pending_.first).value_or(""); }

private:
    std::string outPath() const { return scratch_ + "/run" + std::to_string(runs_) + ".out"; }
    std::string errPath() const { return scratch_ + "/run" + std::to_string(runs_) + ".err"; }

    std::string scratch_;
    std::vector<std::string> env_;
    int runs_ = 0;
    std::pair<std::string, std::string> pending_;
};

} // namespace cirrovault::test

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

    explicit CliRunner(std::string scratch) : scratch_(std::move(scratch)) { FileSystem::createDirectories(scratch_); }

    // Extra "NAME=value" entries for every later run.
    void setEnv(const std::string& entry) { env_.push_back(entry); }

    Result run(const std::vector<std::string>& args) { return finish(start(args)); }

    // Starts without waiting; finish() collects the result. Output goes to runN.out and .err.
    pid_t start(const std::vector<std::string>& args) {
        output_ = scratch_ + "/run" + std::to_string(++runs_);
        pid_t pid = fork();
        if (pid == 0) {
            dup2(open("/dev/null", O_RDONLY), 0);
            dup2(open((output_ + ".out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
            dup2(open((output_ + ".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
            for (const auto& entry : env_)
                putenv(const_cast<char*>(entry.c_str()));
            std::vector<char*> argv = {const_cast<char*>(CIRROVAULT_BINARY)};
            for (const auto& a : args)
                argv.push_back(const_cast<char*>(a.c_str()));
            argv.push_back(nullptr);
            execv(CIRROVAULT_BINARY, argv.data());
            _exit(127);
        }
        return pid;
    }

    Result finish(pid_t pid) {
        int status = 0;
        waitpid(pid, &status, 0);
        return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), outputSoFar(),
                FileSystem::readFile(output_ + ".err").value_or("")};
    }

    // What a started process has printed so far.
    std::string outputSoFar() const { return FileSystem::readFile(output_ + ".out").value_or(""); }

private:
    std::string scratch_, output_;
    std::vector<std::string> env_;
    int runs_ = 0;
};

} // namespace cirrovault::test

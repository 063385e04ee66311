#pragma once

#include <string>
#include <vector>

namespace cirrovault {

// The user's own systemd units: where they are kept and the user manager's systemctl.
class UserUnits {
public:
    // $XDG_CONFIG_HOME/systemd/user, where the user manager looks first.
    static std::string folder();
    // The absolute path of the running program, so a unit starts this very build.
    static std::string runningProgram();
    // Runs `systemctl --user ARGS...` and waits at most timeoutSeconds, or until the
    // thread's CallCancel flag turns true; answers whether it ended with exit code 0.
    static bool systemctl(const std::vector<std::string>& args, double timeoutSeconds = 30);
};

} // namespace cirrovault

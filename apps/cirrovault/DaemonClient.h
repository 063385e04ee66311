#pragma once

#include <optional>
#include <string>

#include "Output.h"

namespace cirrovault::cli {

// A command's side of the daemon's control socket (DaemonControl).
class DaemonClient {
public:
    // Has the daemon of this account back up the task and follows the run to its end:
    // the run's exit code. Ctrl-C or SIGTERM asks the daemon to stop it. nullopt when
    // no daemon answers (a socket left by one that ended is removed), so the caller
    // runs the task itself.
    static std::optional<int> backup(const std::string& accountFolder, const std::string& taskName, bool list,
                                     const Output& out);
};

} // namespace cirrovault::cli

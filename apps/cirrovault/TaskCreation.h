#pragma once

#include <string>

#include "HostSession.h"
#include "TaskInput.h"

namespace cirrovault::cli {

// Makes a task the way the new-task wizard does: the wizard proposes the name and
// checks name, description, folders and that the name is free on the service; the
// manager then takes the rest, scans the sources, checks the account's space and
// registers the task, starting its first run when the task is due at once.
class TaskCreation {
public:
    // Throws CliError with the wizard's or the manager's reason.
    static HostSession::TaskPtr create(HostSession& session, const std::string& name,
                                       const TaskInput& input, const std::string& passPhrase);
    // What follows the wizard's Next: no schedule, the dates, the filters and the
    // encryption go to the manager, which registers the task. Throws CliError.
    static HostSession::TaskPtr finish(HostSession& session, const TaskInput& input, const std::string& passPhrase);
    // A task's name becomes a folder name on the service, where longer names (with room
    // for what the store adds) would fail every run. Throws CliError (bad input).
    static void checkNameLength(const std::string& name);
    static constexpr size_t MaxNameBytes = 200;
    // Whether the manager started the task's first run when it registered it.
    static bool firstRunStarted(HostSession& session, const HostSession::TaskPtr& task);
    // CIRROVAULT_PASSPHRASE, else asked twice at a terminal; throws CliError.
    static std::string askPassPhrase();
};

} // namespace cirrovault::cli

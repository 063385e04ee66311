#pragma once

#include <functional>

#include <CLI/CLI.hpp>

#include "HostSession.h"
#include "Output.h"

namespace cirrovault::cli {

struct PassPhraseOptions;

// What a parsed command does; answers the exit code or throws CliError.
using Runner = std::function<int(const GlobalOptions& global, const Output& out)>;

// Each group adds its subcommands to the application; the one the user chose sets run.
void addAccountCommands(CLI::App& app, Runner& run); // logon, logoff, status
void addTaskCommands(CLI::App& app, Runner& run);    // task new/list/show/edit/delete/migrate
void addBackupCommands(CLI::App& app, Runner& run);  // backup
void addDaemonCommands(CLI::App& app, Runner& run);  // daemon
void addRestoreCommands(CLI::App& app, Runner& run); // restore, versions
void addLogCommands(CLI::App& app, Runner& run);     // log, options
void addCheckCommands(CLI::App& app, Runner& run);   // check

// --passphrase-file, and with offerKeep --keep-passphrase, for commands that read an
// encrypted task's files.
void addPassPhraseOptions(CLI::App* command, PassPhraseOptions& options, bool offerKeep);
void addRepairCommands(CLI::App& app, Runner& run);  // repair
void addServiceCommands(CLI::App& app, Runner& run); // service enable/disable

} // namespace cirrovault::cli

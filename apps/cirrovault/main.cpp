// cirrovault: the command-line host of the backup engine.
#include <cstring>
#include <exception>
#include <string>

#include <CLI/CLI.hpp>

#include "Commands.h"
#include "Output.h"
#include "platform/framework/NimboSetting.h"
#include "platform/os/SecretMemory.h"
#include "platform/os/SystemLog.h"

using namespace cirrovault;
using namespace cirrovault::cli;

namespace {

// Asked before the options are parsed, so that a parse error is a JSON document too.
bool wantsJson(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--") == 0)
            return false;
        if (std::strcmp(argv[i], "--json") == 0)
            return true;
    }
    return false;
}

} // namespace

int main(int argc, char** argv) {
    // Passwords pass through this process (prompt, environment, kept account): no core
    // file, and no other process of the user may read its memory.
    SecretMemory::protectProcess();
    CLI::App app{"cirrovault: back up folders to your online storage, restore them, and keep older "
                 "versions of changed files."};
    app.footer(ExitCodesHelp);
    app.require_subcommand(1);
    GlobalOptions global;
    app.add_option("--service", global.service,
                   "service URL for this command: file:///path (a local store) or webdav(s)://... "
                   "(default: the setting ServiceURL, else the embedded store in your data folder; "
                   "`logon --service URL` makes it the setting)");
    app.add_option("--user", global.user, "account name (default: the kept account, else your login name)");
    app.add_flag("--json", global.json, "print one JSON document on stdout, for scripts");
    app.add_flag("--verbose,-v", global.verbose, "print the system-log lines on stderr too");
    bool quiet = false;
    app.add_flag("--quiet,-q", quiet, "print only errors (and the JSON document with --json)");
    uint64_t limitUpload = 0;
    auto* limitOption = app.add_option("--limit-upload", limitUpload,
                   "upload at most this many KiB/s in this command, 0 for no limit (default: the setting "
                   "LimitUpload; `options LimitUpload=N` keeps one)")
        ->type_name("KiB/s")
        ->check(CLI::Range(uint64_t{0}, uint64_t{1} << 30)); // a negative number must not wrap round
    app.set_version_flag("--version", "cirrovault " CIRROVAULT_VERSION);
    app.fallthrough();

    Runner run;
    addAccountCommands(app, run);
    addTaskCommands(app, run);
    addBackupCommands(app, run);
    addDaemonCommands(app, run);
    addRestoreCommands(app, run);
    addLogCommands(app, run);
    addCheckCommands(app, run);
    addRepairCommands(app, run);
    addServiceCommands(app, run);

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        if (wantsJson(argc, argv)) {
            Output(true).error(Exit::Usage, e.what());
            return Exit::Usage;
        }
        int rc = app.exit(e);
        return rc == 0 ? Exit::Ok : Exit::Usage;
    }
    SystemLog::setVerbose(global.verbose);
    if (limitOption->count() > 0)
        NimboSetting::OverrideForThisProcess("LimitUpload", std::to_string(limitUpload));
    Output out(global.json, quiet);
    if (!run) {
        out.error(Exit::Usage, "nothing to do; see --help");
        return Exit::Usage;
    }
    // Going on from the defaults would silently switch to another store or account.
    if (std::string damaged = NimboSetting::DamagedSettingsFile(); !damaged.empty()) {
        out.error(Exit::Damaged,
                  text("CliSettingsDamaged",
                       "the settings file {} cannot be read; it is left as it is. Repair it, or "
                       "move it away to start again from the defaults.",
                       damaged));
        return Exit::Damaged;
    }
    try {
        return run(global, out);
    } catch (const CliError& e) {
        out.error(e.exitCode(), e.what());
        return e.exitCode();
    } catch (const std::exception& e) {
        SystemLog::write(std::string("Error: cirrovault: ") + e.what());
        out.error(Exit::Failed, e.what());
        return Exit::Failed;
    }
}

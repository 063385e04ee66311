// service: the daemon as a systemd user service.
#include <memory>

#include "Commands.h"
#include "ServiceUnit.h"
#include "Signals.h"
#include "platform/os/CallCancel.h"
#include "platform/os/FileSystem.h"
#include "platform/os/UserUnits.h"

namespace cirrovault::cli {

namespace {

constexpr const char* UnitName = "cirrovault.service";

void throwIfStopped() {
    if (Signals::pending())
        throw CliError(Exit::Cancelled, text("CliServiceStopped", "stopped before the user manager answered"));
}

// The unit runs the program that wrote it, wherever it was installed.
std::string unitText(const std::string& program) {
    std::string unit = ServiceUnitTemplate;
    const std::string placeholder = "@BINDIR@/cirrovault";
    if (size_t at = unit.find(placeholder); at != std::string::npos)
        unit.replace(at, placeholder.size(), program);
    return unit;
}

int enableCommand(bool writeOnly, const Output& out) {
    std::string program = UserUnits::runningProgram();
    if (program.empty())
        throw CliError(Exit::Failed, text("CliServiceNoProgram", "cannot tell where this program is installed"));
    std::string folder = UserUnits::folder();
    std::string path = folder + "/" + UnitName;
    if (!FileSystem::createDirectories(folder) || !FileSystem::writeFileAtomically(path, unitText(program)))
        throw CliError(Exit::Failed, text("CliServiceNotWritten", "cannot write {}", path));
    out.line(text("CliServiceWritten", "wrote {} (runs {} daemon)", path, program));
    bool enabled = false;
    if (!writeOnly) {
        Signals::install();
        CallCancel cancel(Signals::stopFlag());
        enabled = UserUnits::systemctl({"daemon-reload"}) && UserUnits::systemctl({"enable", "--now", UnitName});
        throwIfStopped();
        if (!enabled)
            throw CliError(Exit::Failed, text("CliServiceNotEnabled",
                                              "the unit is written but the user manager did not enable it; try "
                                              "`systemctl --user enable --now {}`",
                                              UnitName));
        out.line(text("CliServiceEnabled", "enabled and started; follow it with `journalctl --user -u {} -f`",
                      UnitName));
    }
    Json doc = Json::object();
    doc.set("ok", true).set("unit", path).set("program", program).set("enabled", enabled);
    out.result(doc);
    return Exit::Ok;
}

int disableCommand(const Output& out) {
    std::string path = UserUnits::folder() + "/" + UnitName;
    Signals::install();
    CallCancel cancel(Signals::stopFlag());
    bool stopped = UserUnits::systemctl({"disable", "--now", UnitName});
    throwIfStopped();
    bool removed = !FileSystem::exists(path) || FileSystem::removeItem(path);
    UserUnits::systemctl({"daemon-reload"});
    if (!removed)
        throw CliError(Exit::Failed, text("CliServiceNotRemoved", "cannot remove {}", path));
    out.line(stopped ? text("CliServiceDisabled", "stopped, disabled and removed {}", path)
                     : text("CliServiceRemoved", "removed {} (the user manager did not answer)", path));
    Json doc = Json::object();
    doc.set("ok", true).set("unit", path).set("stopped", stopped);
    out.result(doc);
    return Exit::Ok;
}

} // namespace

void addServiceCommands(CLI::App& app, Runner& run) {
    auto* service = app.add_subcommand("service", "run the daemon as a systemd user service");
    service->require_subcommand(1);
    auto writeOnly = std::make_shared<bool>(false);
    auto* enable = service->add_subcommand(
        "enable", "write the user unit for this program and enable it (starts now and at every logon)");
    enable->add_flag("--write-only", *writeOnly, "write the unit but leave systemctl alone");
    enable->callback([&run, writeOnly] {
        run = [writeOnly](const GlobalOptions&, const Output& out) { return enableCommand(*writeOnly, out); };
    });
    auto* disable = service->add_subcommand("disable", "stop and disable the user unit and remove it");
    disable->callback([&run] { run = [](const GlobalOptions&, const Output& out) { return disableCommand(out); }; });
}

} // namespace cirrovault::cli

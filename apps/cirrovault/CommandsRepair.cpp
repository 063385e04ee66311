// repair: rebuilds the local store's records from what its account folders keep.
#include <memory>

#include "Commands.h"
#include "Credentials.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/store/StoreFactory.h"
#include "platform/store/local/LocalStore.h"

namespace cirrovault::cli {

namespace {

int repairCommand(const GlobalOptions& global, const Output& out) {
    const std::string url = global.service.empty() ? TransferApiUtil::defaultServiceURL() : global.service;
    auto store = std::dynamic_pointer_cast<LocalStore>(StoreFactory::makeBackend(url));
    if (!store)
        throw CliError(Exit::Usage, text("CliRepairLocalOnly",
                                         "repair rebuilds the records of a local store; {} is not one", url));
    const std::string user = Credentials::userName(global.user);
    std::vector<std::string> report;
    int64_t code = LocalStore::repair(
        store->folder(), user, [&] { return Credentials::password(user, true); }, report);
    Json lines = Json::array();
    for (const auto& line : report) {
        out.line(line);
        lines.push(line);
    }
    if (code != ResultCode::Success)
        throw CliError(Exit::Failed, text("CliRepairIncomplete",
                                          "the store in {} was not repaired completely (see above)",
                                          store->folder()));
    out.line(text("CliRepaired", "The store's records in {} are rebuilt; log on as before.", store->folder()));
    Json doc = Json::object();
    doc.set("ok", true).set("store", store->folder()).set("report", lines);
    out.result(doc);
    return Exit::Ok;
}

} // namespace

void addRepairCommands(CLI::App& app, Runner& run) {
    auto* repair = app.add_subcommand(
        "repair", "rebuild the records of the local store (accounts, task lists) from its files, after "
                  "its database was damaged or lost; a damaged database is moved aside, not deleted");
    repair->callback([&run] { run = repairCommand; });
}

} // namespace cirrovault::cli

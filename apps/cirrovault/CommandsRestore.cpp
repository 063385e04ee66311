// restore, versions, versions delete.
#include <atomic>
#include <cstdio>
#include <memory>

#include "Commands.h"
#include "RestoreSupport.h"
#include "Signals.h"
#include "TaskFormat.h"
#include "platform/framework/PathTreeController.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/framework/TransferInfo.h"
#include "platform/os/FileSystem.h"
#include "support/GlobalFunction.h"
#include "support/RestoredItem.h"
#include "ui/CDownloadFileController.h"

namespace cirrovault::cli {

namespace {

struct RestoreArgs {
    std::string name;
    std::vector<std::string> paths;
    std::string to;
    int version = -1;
    bool overwrite = false;
    bool dryRun = false;
    PassPhraseOptions passPhrase;
};

struct VersionArgs {
    std::string name;
    std::string path;
    int version = -1;
    bool all = false;
};

// The stored files the command names, with where each one goes.
std::vector<RestoreItem> chooseItems(const RestoreArgs& args, const RestoreSupport& where, const std::string& taskName) {
    std::vector<std::string> wanted;
    for (const auto& p : args.paths)
        wanted.push_back(where.relative(p));
    std::vector<RestoreItem> items;
    if (args.version >= 0) {
        auto versions = where.versions(wanted[0]);
        const FileVersion* chosen = nullptr;
        for (const auto& v : versions)
            if (v.number == args.version)
                chosen = &v;
        if (!chosen)
            throw CliError(Exit::Usage, versions.empty()
                                            ? text("CliNoVersions", "{} has no older versions", wanted[0])
                                            : text("CliNoSuchVersion", "{} has no version {} (see `cirrovault versions {} {}`)",
                                                   wanted[0], args.version, taskName, wanted[0]));
        items.push_back({chosen->info.path, args.to + "/" + wanted[0], chosen->info.iSize, chosen->info.modifyTime});
        return items;
    }
    std::vector<bool> matched(wanted.size(), false);
    for (const auto& [rel, info] : where.files()) {
        bool take = wanted.empty();
        for (size_t i = 0; i < wanted.size(); ++i)
            if (rel == wanted[i] || rel.compare(0, wanted[i].size() + 1, wanted[i] + "/") == 0)
                take = matched[i] = true;
        if (take)
            items.push_back({info.path, args.to + "/" + rel, info.iSize, info.modifyTime});
    }
    for (size_t i = 0; i < wanted.size(); ++i)
        if (!matched[i])
            throw CliError(Exit::Usage, text("CliNotBackedUp", "{} is not backed up in \"{}\"", args.paths[i], taskName));
    return items;
}

int dryRun(const RestoreArgs& args, const std::vector<RestoreItem>& items, const Output& out) {
    size_t writes = 0, keeps = 0;
    uint64_t bytes = 0;
    Json w = Json::array(), k = Json::array();
    for (const auto& item : items) {
        if (FileSystem::exists(item.local) && !args.overwrite) {
            ++keeps;
            k.push(item.local);
            out.line(text("CliWouldKeep", "would keep     {}", item.local));
        } else {
            ++writes;
            bytes += item.size;
            w.push(item.local);
            out.line(text("CliWouldRestore", "would restore  {}", item.local));
        }
    }
    out.line(text("CliRestoreDryRun", "Dry run: {} ({}) would be restored into {}, {} kept; nothing was written.",
                  TaskFormat::countText(writes, "file", "files"), GlobalFunction::stringFromFileSize(bytes), args.to,
                  keeps));
    Json doc = Json::object();
    doc.set("ok", true).set("dryRun", true).set("wouldRestore", w).set("wouldKeep", k);
    out.result(doc);
    return Exit::Ok;
}

int restoreCommand(const RestoreArgs& args, const GlobalOptions& global, const Output& out) {
    if (args.to.empty())
        throw CliError(Exit::Usage, text("CliNeedTo", "say where to restore with --to DIR"));
    if (FileSystem::exists(args.to) && !FileSystem::isDirectoryFollowingLinks(args.to))
        throw CliError(Exit::Usage, text("CliNotAFolder", "{} is not a folder", args.to));
    if (args.version >= 0 && args.paths.size() != 1)
        throw CliError(Exit::Usage, text("CliVersionOneFile", "--version restores one file: name exactly one PATH"));
    Signals::install();
    HostSession session(global, out);
    session.logon(false);
    auto task = session.task(args.name);
    RestoreSupport where(session, task);
    std::vector<RestoreItem> items = chooseItems(args, where, task->name);
    if (args.dryRun)
        return dryRun(args, items, out);

    // Tried on the smallest file before anything is written.
    const RestoreItem* sample = nullptr;
    for (const auto& item : items)
        if (!sample || item.size < sample->size)
            sample = &item;
    std::string passPhrase = where.passPhrase(args.passPhrase, sample ? sample->server : "");
    RestoreOutcome outcome = where.restoreItems(items, args.to, args.overwrite, passPhrase, session.backend());

    for (const auto& f : outcome.restored)
        out.line(text("CliRestored", "restored  {}", f));
    for (const auto& f : outcome.kept)
        out.line(text("CliKeptLocal", "kept      {} (it exists)", f));
    Json doc = Json::object();
    Json r = Json::array(), k = Json::array(), f = Json::array();
    for (const auto& x : outcome.restored) r.push(x);
    for (const auto& x : outcome.kept) k.push(x);
    for (const auto& x : outcome.failed) f.push(x);
    Json partly = Json::array();
    for (const auto& x : outcome.incomplete) partly.push(x);
    bool ok = outcome.failed.empty() && outcome.incomplete.empty() && !outcome.cancelled;
    doc.set("ok", ok).set("restored", r).set("kept", k).set("failed", f).set("incomplete", partly)
        .set("cancelled", outcome.cancelled);
    out.result(doc);
    for (const auto& x : outcome.failed)
        std::fprintf(stderr, "cirrovault: not restored: %s\n", x.c_str());
    for (const auto& x : outcome.incomplete)
        std::fprintf(stderr, "cirrovault: restored, but not as it was: %s\n", x.c_str());
    out.line(text("CliRestoreSummary", "Restored {} ({}) into {}; kept {}; failed {}.",
                  TaskFormat::countText(outcome.restored.size(), "file", "files"),
                  GlobalFunction::stringFromFileSize(outcome.bytesRestored), args.to, outcome.kept.size(), outcome.failed.size()));
    // Keeping what is already there is what was asked for without --overwrite: not a failure.
    if (!outcome.kept.empty())
        out.line(outcome.kept.size() == 1
                     ? text("CliKeptHintOne", "1 existing file was kept as it is; --overwrite replaces it.")
                     : text("CliKeptHint", "{} existing files were kept as they are; --overwrite replaces them.",
                            outcome.kept.size()));
    if (outcome.cancelled) {
        std::fprintf(stderr, "cirrovault: %s\n", text("CliRestoreCancelled", "the restore was cancelled; {} of {} restored",
                                                      outcome.restored.size(),
                                                      TaskFormat::countText(items.size(), "file", "files")).c_str());
        return Exit::Cancelled;
    }
    return ok ? Exit::Ok : Exit::Failed;
}

int versionsCommand(const VersionArgs& args, const GlobalOptions& global, const Output& out) {
    HostSession session(global, out);
    session.logon(false);
    auto task = session.task(args.name);
    RestoreSupport where(session, task);
    std::string rel = where.relative(args.path);
    PathInfo current;
    bool hasCurrent = TransferApiUtil::sharePathTreeController().FindPath(where.serverPathOf(rel), current, false);
    auto versions = where.versions(rel);
    if (!hasCurrent && versions.empty())
        throw CliError(Exit::Usage, text("CliNotBackedUp", "{} is not backed up in \"{}\"", args.path, task->name));
    Json list = Json::array();
    out.line(text("CliVersionsOf", "{} in \"{}\":", rel, task->name));
    if (hasCurrent)
        out.line(text("CliVersionCurrent", "  current    {}  {}", TaskFormat::dateText(current.modifyTime),
                      GlobalFunction::stringFromFileSize(current.iSize)));
    for (const auto& v : versions) {
        out.line(text("CliVersionLine", "  version {}  {}  {}", v.number, TaskFormat::dateText(v.info.modifyTime),
                      GlobalFunction::stringFromFileSize(v.info.iSize)));
        Json j = Json::object();
        j.set("version", v.number).set("modified", Json::date(v.info.modifyTime)).set("size", v.info.iSize)
            .set("serverPath", v.info.path);
        list.push(j);
    }
    if (versions.empty())
        out.line(text("CliNoOlder", "  no older versions"));
    else
        out.line(text("CliVersionHint", "Restore one with `cirrovault restore {} {} --version K --to DIR`.", task->name, rel));
    Json doc = Json::object();
    doc.set("ok", true).set("path", rel).set("current", hasCurrent ? Json::date(current.modifyTime) : Json())
        .set("currentSize", hasCurrent ? Json(current.iSize) : Json()).set("versions", list);
    out.result(doc);
    return Exit::Ok;
}

int versionsDeleteCommand(const VersionArgs& args, const GlobalOptions& global, const Output& out) {
    if (args.version < 0 && !args.all)
        throw CliError(Exit::Usage, text("CliWhichVersion", "say which version to delete: --version K, or --all"));
    HostSession session(global, out);
    session.logon(true);
    auto task = session.task(args.name);
    RestoreSupport where(session, task);
    std::string rel = where.relative(args.path);
    auto versions = where.versions(rel);
    std::vector<std::string> paths;
    for (const auto& v : versions)
        if (args.all || v.number == args.version)
            paths.push_back(v.info.path);
    if (paths.empty())
        throw CliError(Exit::Usage, args.all ? text("CliNoVersions", "{} has no older versions", rel)
                                             : text("CliNoSuchVersion", "{} has no version {} (see `cirrovault versions {} {}`)",
                                                    rel, args.version, task->name, rel));
    session.manager().DeleteFileVersions(paths, task->name);
    size_t left = 0;
    for (const auto& p : paths) {
        PathInfo info;
        if (TransferApiUtil::sharePathTreeController().FindPath(p, info, false))
            ++left;
    }
    if (left > 0)
        throw CliError(Exit::Failed, text("CliVersionsLeft", "{} of {} could not be deleted", left,
                                          TaskFormat::countText(paths.size(), "version", "versions")));
    out.line(text("CliVersionsDeleted", "Deleted {} of {}.",
                  TaskFormat::countText(paths.size(), "older version", "older versions"), rel));
    Json doc = Json::object();
    doc.set("ok", true).set("deleted", static_cast<uint64_t>(paths.size()));
    out.result(doc);
    return Exit::Ok;
}

} // namespace

void addPassPhraseOptions(CLI::App* command, PassPhraseOptions& options, bool offerKeep) {
    command->add_option("--passphrase-file", options.file,
                        "read an encrypted task's pass phrase from the first line of this file "
                        "(else CIRROVAULT_PASSPHRASE, else the one kept here, else asked)");
    if (offerKeep)
        command->add_flag("--keep-passphrase", options.keep,
                          "remember the pass phrase on this computer (mode 0600) for later commands");
}

void addRestoreCommands(CLI::App& app, Runner& run) {
    auto rargs = std::make_shared<RestoreArgs>();
    auto* restore = app.add_subcommand(
        "restore", "restore a task's files (all, or the PATHs) into a folder; existing files are kept unless --overwrite");
    restore->add_option("name", rargs->name, "the task")->required();
    restore->add_option("paths", rargs->paths,
                        "files or folders to restore: the original path, or relative to the folder above the task's "
                        "source (e.g. Documents/a.txt)");
    restore->add_option("--to", rargs->to, "the folder to restore into (made when missing)")->required();
    restore->add_option("--version", rargs->version, "restore this older version of the one PATH (see `versions`)");
    restore->add_flag("--overwrite", rargs->overwrite, "replace files that exist in the target folder");
    restore->add_flag("--dry-run,-n", rargs->dryRun, "list what would be restored or kept; write nothing");
    addPassPhraseOptions(restore, rargs->passPhrase, true);
    restore->callback([&run, rargs] { run = [rargs](auto& g, auto& o) { return restoreCommand(*rargs, g, o); }; });

    auto vargs = std::make_shared<VersionArgs>();
    auto* versions = app.add_subcommand("versions", "the older versions of a file kept on the service");
    versions->add_option("name", vargs->name, "the task");
    versions->add_option("path", vargs->path, "the file (original path, or relative as for restore)");
    auto* remove = versions->add_subcommand("delete", "delete older versions of a file on the service");
    remove->add_option("name", vargs->name, "the task")->required();
    remove->add_option("path", vargs->path, "the file")->required();
    remove->add_option("--version", vargs->version, "the version to delete");
    remove->add_flag("--all", vargs->all, "delete every older version of the file");
    remove->callback([&run, vargs] { run = [vargs](auto& g, auto& o) { return versionsDeleteCommand(*vargs, g, o); }; });
    versions->callback([&run, vargs, remove] {
        if (remove->parsed())
            return;
        if (vargs->name.empty() || vargs->path.empty())
            throw CLI::ValidationError("versions", "name a task and a file: cirrovault versions NAME PATH");
        run = [vargs](auto& g, auto& o) { return versionsCommand(*vargs, g, o); };
    });
}

} // namespace cirrovault::cli

// backup NAME | backup DIR.
#include <cstdio>
#include <memory>
#include <mutex>
#include <optional>

#include "BackupRunner.h"
#include "Commands.h"
#include "DaemonClient.h"
#include "RestoreSupport.h"
#include "Signals.h"
#include "TaskCreation.h"
#include "TaskFormat.h"
#include "TaskInput.h"
#include "platform/os/FileSystem.h"
#include "support/CFileInfo.h"
#include "support/GlobalFunction.h"

namespace cirrovault::cli {

namespace {

struct BackupArgs {
    std::string target;
    bool list = false;
    bool dryRun = false;
};

bool looksLikePath(const std::string& target) {
    return target.find('/') != std::string::npos || target == "." || target == "..";
}

// The task that backs up exactly this folder, if there is one.
HostSession::TaskPtr taskForFolder(HostSession& session, const std::string& folder) {
    for (const auto& task : session.manager().getTasksList()) {
        if (task->bMigrateTask)
            continue;
        if (task->localDirList.empty())
            task->loadFilePathListFromDB();
        auto sources = TaskFormat::sources(*task);
        if (sources.size() == 1 && sources[0] == folder)
            return task;
    }
    return nullptr;
}

// The folder's name, made unique among the account's tasks.
std::string freeName(HostSession& session, const std::string& folder) {
    std::string base = CFileInfo::getMacFileName(folder, false);
    if (base.empty() || !GlobalFunction::ValidNameFmt(base) || base.size() + 4 > TaskCreation::MaxNameBytes)
        base = "Backup";
    std::string name = base;
    for (int n = 2; session.manager().GetTaskByName(name) || session.wizard().IsCreateTaskValid(name) == 1; ++n)
        name = base + "-" + std::to_string(n);
    return name;
}

// What the next run would send; nothing is sent.
int dryRun(const HostSession::TaskPtr& task, const Output& out) {
    uint64_t bytes = 0;
    std::vector<std::string> files = RestoreSupport::pendingFiles(task, bytes);
    Json list = Json::array();
    for (const auto& f : files) {
        out.line(text("CliWouldSend", "would send  {}", f));
        list.push(f);
    }
    out.line(text("CliBackupDryRun", "Dry run: \"{}\" would send {} ({}); nothing was sent.", task->name,
                  TaskFormat::countText(files.size(), "new or changed file", "new or changed files"),
                  GlobalFunction::stringFromFileSize(bytes)));
    Json doc = Json::object();
    doc.set("ok", true).set("dryRun", true).set("task", task->name).set("wouldSend", list).set("bytes", bytes);
    out.result(doc);
    return Exit::Ok;
}

int backupCommand(const BackupArgs& args, const GlobalOptions& global, const Output& out) {
    std::string folder;
    if (looksLikePath(args.target))
        folder = existingFolder(args.target);
    Signals::install();
    HostSession session(global, out);
    // The run lock waits until we know whether the account's daemon will run the task.
    session.logon(false);
    HostSession::TaskPtr task;
    if (folder.empty()) {
        task = session.manager().GetTaskByName(args.target);
        if (!task && FileSystem::isDirectoryFollowingLinks(args.target))
            folder = existingFolder(args.target);
        else if (!task)
            task = session.task(args.target); // says there is no such task
    }
    if (args.list && !out.json()) {
        // Notices arrive on the run's own thread, which owns strWorkingFile.
        auto last = std::make_shared<std::string>();
        session.addListener([last](const HostSession::TaskPtr& t, int32_t type) {
            if (!t || type != refreshProgressBarDelegate || !t->bInitUIPrgBar || t->strWorkingFile == *last)
                return;
            *last = t->strWorkingFile;
            std::printf("  sending  %s\n", last->c_str());
            std::fflush(stdout);
        });
    }
    if (!task && !folder.empty())
        task = taskForFolder(session, folder);
    // Beside a running daemon the run is the daemon's, so that one engine works the account.
    if (task && !args.dryRun && !task->bMigrateTask)
        if (std::optional<int> rc = DaemonClient::backup(session.accountFolder(), task->name, args.list, out))
            return *rc;
    session.lockRuns();
    RunOutcome outcome;
    BackupRunner runner(session);
    if (task) {
        if (task->bMigrateTask)
            throw CliError(Exit::Usage, text("CliOtherComputer",
                                             "\"{}\" was made on {}: move it here first with `cirrovault task migrate {} --to DIR`",
                                             task->name, task->mPCName, task->name));
        if (args.dryRun)
            return dryRun(task, out);
        out.line(text("CliBackupStart", "Backing up \"{}\"...", task->name));
        outcome = runner.runNow(task);
    } else {
        TaskInput input;
        input.sources = {folder};
        input.check();
        std::string name = freeName(session, folder);
        if (args.dryRun) {
            out.line(text("CliQuickTaskDryRun", "Dry run: the task \"{}\" would be made for {} and all its files sent.", name, folder));
            out.result(Json::object().set("ok", true).set("dryRun", true).set("newTask", name));
            return Exit::Ok;
        }
        out.line(text("CliQuickTask", "Making the task \"{}\" for {}; its first backup runs now.", name, folder));
        task = TaskCreation::create(session, name, input, "");
        if (!TaskCreation::firstRunStarted(session, task))
            throw CliError(Exit::Failed, text("CliFirstRunNotStarted", "the task \"{}\" was made, but its first backup did not start", name));
        outcome = runner.watch(task);
    }
    int rc = BackupRunner::exitCode(outcome);
    std::string summary = BackupRunner::summary(task, outcome);
    if (rc == Exit::Ok) {
        out.line(summary);
        out.result(BackupRunner::resultDocument(task, outcome));
    } else {
        out.error(rc, summary);
    }
    return rc;
}

} // namespace

void addBackupCommands(CLI::App& app, Runner& run) {
    auto args = std::make_shared<BackupArgs>();
    auto* backup = app.add_subcommand(
        "backup", "back up a task now, or a folder (the first time a task is made for it and reused after); "
                  "Ctrl-C stops cleanly and the next run goes on where it stopped");
    backup->add_option("target", args->target, "a task's name, or a folder")->required();
    backup->add_flag("--list", args->list, "print every file as it is sent");
    backup->add_flag("--dry-run,-n", args->dryRun, "list what would be sent; send nothing");
    backup->callback([&run, args] { run = [args](auto& g, auto& o) { return backupCommand(*args, g, o); }; });
}

} // namespace cirrovault::cli

// task new, list, show, edit, delete, migrate.
#include <algorithm>
#include <climits>
#include <cstdlib>
#include <memory>

#include "BackupRunner.h"
#include "Commands.h"
#include "RestoreSupport.h"
#include "TaskFormat.h"
#include "TaskInput.h"
#include "TaskCreation.h"
#include "platform/framework/TransferApiUtil.h"
#include "support/GlobalFunction.h"

namespace cirrovault::cli {

namespace {

struct TaskArgs {
    std::string name;
    std::string rename;
    std::string to;
    bool keepServerFiles = false;
    bool clearExcludes = false;
    std::vector<std::string> removeSources;
    TaskInput input;
    PassPhraseOptions passPhrase;
};

void printTask(const Output& out, const CBackupTask& task) {
    for (const auto& line : TaskFormat::describe(task))
        out.line(line);
}

int listCommand(const GlobalOptions& global, const Output& out) {
    HostSession session(global, out);
    session.logon(false);
    Json tasks = Json::array();
    auto list = session.manager().getTasksList();
    if (list.empty())
        out.line(text("CliNoTasksYet", "No tasks yet: make one with `cirrovault task new NAME --source DIR`."));
    for (const auto& task : list) {
        tasks.push(TaskFormat::toJson(*task, false));
        out.line(task->name + "  [" + TaskFormat::stateName(task->mTaskState) + "]  " +
                 TaskFormat::scheduleText(*task) + "; last backup " + TaskFormat::dateText(task->mBackupDate));
    }
    Json doc = Json::object();
    doc.set("ok", true).set("tasks", tasks);
    out.result(doc);
    return Exit::Ok;
}

int showCommand(const TaskArgs& args, const GlobalOptions& global, const Output& out) {
    HostSession session(global, out);
    session.logon(false);
    auto task = session.task(args.name);
    if (task->localDirList.empty())
        task->loadFilePathListFromDB();
    printTask(out, *task);
    Json doc = Json::object();
    doc.set("ok", true).set("task", TaskFormat::toJson(*task, true));
    out.result(doc);
    return Exit::Ok;
}

int newCommand(TaskArgs& args, const GlobalOptions& global, const Output& out) {
    args.input.check();
    TaskCreation::checkNameLength(args.name);
    if (args.input.absoluteSources.empty())
        throw CliError(Exit::Usage, text("CliNeedSource", "a task needs at least one --source folder"));
    std::string passPhrase;
    if (args.input.encrypt)
        passPhrase = TaskCreation::askPassPhrase();
    HostSession session(global, out);
    session.logon(true);
    BackupRunner runner(session);
    auto task = TaskCreation::create(session, args.name, args.input, passPhrase);
    out.line(text("CliTaskMade", "Made the task \"{}\" ({}).", task->name, TaskFormat::scheduleText(*task)));
    Json doc = Json::object();
    doc.set("ok", true).set("task", task->name);
    int rc = Exit::Ok;
    if (TaskCreation::firstRunStarted(session, task)) {
        out.line(text("CliFirstRun", "Its first backup runs now."));
        RunOutcome outcome = runner.watch(task);
        rc = BackupRunner::exitCode(outcome);
        (rc == Exit::Ok ? out.line(BackupRunner::summary(task, outcome))
                        : out.error(rc, BackupRunner::summary(task, outcome)));
        doc.set("firstRun", TaskFormat::stateName(outcome.state)).set("filesSent", outcome.filesToSend)
            .set("bytesSent", outcome.bytesSent);
    } else if ((task->taskType & CBackupTask::ScheduleKindMask) != CBackupTask::ScheduleNone) {
        out.line(text("CliNextRun", "Next run: {} (the daemon runs it; `cirrovault backup {}` runs it now).",
                      TaskFormat::dateText(task->mDating), task->name));
    }
    doc.set("nextRun", Json::date(task->mDating));
    if (rc == Exit::Ok)
        out.result(doc);
    return rc;
}

void applySchedule(CBackupTask& task, const TaskInput& input) {
    if (input.kind)
        task.taskType = (task.taskType & ~CBackupTask::ScheduleKindMask) | *input.kind;
    if (input.skipHidden)
        task.taskType |= CBackupTask::SkipHiddenFlag;
    if (input.backUpHidden)
        task.taskType &= ~CBackupTask::SkipHiddenFlag;
    if (input.fromDate)
        task.SetBeginDate(*input.fromDate);
    if (input.untilDate)
        task.mEndDate = *input.untilDate;
    if (input.kind || input.minutes || input.weekdayNumber)
        task.SetSchDating(input.firstRun(), true);
}

void editPatterns(std::vector<std::string>& patterns, const std::vector<std::string>& added,
                  const std::vector<std::string>& dropped, const std::string& taskName) {
    for (const auto& d : dropped) {
        auto at = std::find(patterns.begin(), patterns.end(), d);
        if (at == patterns.end())
            throw CliError(Exit::Usage, text("CliNotAnExclusion", "\"{}\" is not an exclusion of \"{}\"", d, taskName));
        patterns.erase(at);
    }
    for (const auto& a : added)
        if (std::find(patterns.begin(), patterns.end(), a) == patterns.end())
            patterns.push_back(a);
}

int editCommand(TaskArgs& args, const GlobalOptions& global, const Output& out) {
    args.input.check();
    std::vector<std::string> removed;
    for (const auto& r : args.removeSources) {
        char resolved[PATH_MAX];
        removed.push_back(realpath(r.c_str(), resolved) ? std::string(resolved) : r);
    }
    HostSession session(global, out);
    session.logon(true);
    CBackupManage& manager = session.manager();
    auto task = session.task(args.name);
    if (task->bMigrateTask)
        throw CliError(Exit::Usage, text("CliOtherComputer",
                                         "\"{}\" was made on {}: move it here first with `cirrovault task migrate {} --to DIR`",
                                         task->name, task->mPCName, task->name));
    if (task->localDirList.empty())
        task->loadFilePathListFromDB();
    std::vector<std::string> sources = TaskFormat::sources(*task);
    std::vector<std::string> added;
    for (const auto& s : args.input.absoluteSources)
        if (std::find(sources.begin(), sources.end(), s) == sources.end()) {
            sources.push_back(s);
            added.push_back(s);
        }
    std::vector<std::string> dropped;
    for (const auto& r : removed) {
        auto at = std::find(sources.begin(), sources.end(), r);
        if (at == sources.end())
            throw CliError(Exit::Usage, text("CliNotASource", "{} is not a source of \"{}\"", r, task->name));
        sources.erase(at);
        dropped.push_back(r);
    }
    if (sources.empty())
        throw CliError(Exit::Usage, text("CliLastSource", "a task needs at least one source; \"{}\" would have none", task->name));
    std::string oldName = task->name;
    if (!args.rename.empty() && args.rename != oldName) {
        if (!GlobalFunction::ValidNameFmt(args.rename))
            throw CliError(Exit::Usage, text("CliBadName", "\"{}\" cannot be a task name", args.rename));
        TaskCreation::checkNameLength(args.rename);
        int taken = session.wizard().IsCreateTaskValid(args.rename);
        if (taken != 0)
            throw CliError(taken == 1 ? Exit::Usage : Exit::Failed,
                           taken == 1 ? text("CliNameTaken", "the name \"{}\" is taken", args.rename)
                                      : session.lastMessage());
        task->name = args.rename;
    }
    if (!args.input.description.empty())
        task->description = args.input.description;
    applySchedule(*task, args.input);
    // Exclusions change the way sources do: named ones are added or dropped, the rest stay.
    if (args.clearExcludes) {
        task->filterExt.clear();
        task->filtedPath.clear();
    }
    editPatterns(task->filterExt, args.input.excludeExt, args.input.noExcludeExt, task->name);
    editPatterns(task->filtedPath, args.input.excludeFolder, args.input.noExcludeFolder, task->name);
    task->addFileArray = added;
    task->deleteFileArray = dropped;
    task->backupFileArray = sources;
    session.clearLastMessage();
    int32_t code = manager.editBackupTask(task, oldName);
    if (code != 0) {
        task->name = oldName;
        std::string why = session.lastMessage();
        throw CliError(Exit::Failed, text("CliEditFailed", "the service refused the change of \"{}\": {}", oldName,
                                          why.empty() ? TransferApiUtil::stringWithReturnCode(code) : why));
    }
    out.line(text("CliTaskChanged", "Changed the task \"{}\".", task->name));
    printTask(out, *task);
    Json doc = Json::object();
    doc.set("ok", true).set("task", TaskFormat::toJson(*task, true));
    out.result(doc);
    return Exit::Ok;
}

int deleteCommand(const TaskArgs& args, const GlobalOptions& global, const Output& out) {
    HostSession session(global, out);
    session.logon(true);
    CBackupManage& manager = session.manager();
    auto task = session.task(args.name);
    session.clearLastMessage();
    bool done = manager.BatchDeleteTask(task->name, !args.keepServerFiles);
    if (!done)
        throw CliError(Exit::Cancelled, text("CliDeleteCancelled",
                                             "the deletion of \"{}\" was cancelled; what was reached is gone or renamed",
                                             task->name));
    if (manager.GetTaskByName(task->name)) {
        std::string why = session.lastMessage();
        throw CliError(Exit::Failed, text("CliDeleteFailed", "the task \"{}\" could not be deleted{}", task->name,
                                          why.empty() ? " (see `cirrovault --verbose`)" : ": " + why));
    }
    out.line(args.keepServerFiles
                 ? text("CliDeletedKept", "Deleted the task \"{}\"; its files stay on the service under a new name.", task->name)
                 : text("CliDeleted", "Deleted the task \"{}\" and its files on the service.", task->name));
    Json doc = Json::object();
    doc.set("ok", true).set("deleted", task->name).set("serverFilesKept", args.keepServerFiles);
    out.result(doc);
    return Exit::Ok;
}

int migrateCommand(const TaskArgs& args, const GlobalOptions& global, const Output& out) {
    std::string root = existingFolder(args.to);
    HostSession session(global, out);
    session.logon(true);
    CBackupManage& manager = session.manager();
    auto task = session.task(args.name);
    if (!task->bMigrateTask)
        throw CliError(Exit::Usage, text("CliAlreadyHere", "\"{}\" already belongs to this computer", task->name));
    // Tells what kind of paths the task has (this system's, or another system's).
    RestoreSupport where(session, task);
    // Backing up from here needs the encrypted task's pass phrase: tried before anything
    // changes, and kept once the task is moved.
    std::string passPhrase = where.passPhrase(args.passPhrase, where.encrypted() ? where.sampleFile() : "");
    session.clearLastMessage();
    if (!manager.MigrateTaskToCurrentPC(root, task, manager.nOSBackupDataType)) {
        std::string why = session.lastMessage();
        throw CliError(Exit::Failed, text("CliMigrateFailed", "the task \"{}\" could not be moved here{}", task->name,
                                          why.empty() ? "" : ": " + why));
    }
    if (!passPhrase.empty())
        where.keepPassPhrase(passPhrase);
    out.line(text("CliMigrated", "The task \"{}\" now backs up from this computer:", task->name));
    for (const auto& s : TaskFormat::sources(*task))
        out.line("  " + s);
    Json doc = Json::object();
    doc.set("ok", true).set("task", TaskFormat::toJson(*task, true));
    out.result(doc);
    return Exit::Ok;
}

void addInputOptions(CLI::App* cmd, TaskInput& input, bool forNew) {
    cmd->add_option("--source,-s", input.sources, forNew ? "a folder to back up (repeat for more)"
                                                           : "add a source folder (repeat for more)");
    cmd->add_option("--description,-d", input.description, "what the task is for");
    cmd->add_option("--schedule", input.schedule, "none (default for new tasks), daily, weekly or dates");
    cmd->add_option("--time", input.time, "time of day of the scheduled run, HH:MM");
    cmd->add_option("--weekday", input.weekday, "day of a weekly run: mon, tue, ... sun");
    cmd->add_option("--from", input.from, "first day the schedule runs, YYYY-MM-DD [HH:MM]");
    cmd->add_option("--until", input.until, "last day the schedule runs, YYYY-MM-DD [HH:MM]");
    cmd->add_option("--exclude-ext", input.excludeExt, forNew ? "leave out files matching this pattern, e.g. *.tmp (repeat)"
                                                              : "add a pattern of files to leave out (repeat)");
    cmd->add_option("--exclude-folder", input.excludeFolder, forNew ? "leave out folders matching this pattern (repeat)"
                                                                    : "add a pattern of folders to leave out (repeat)");
    cmd->add_option("--exclude-from", input.excludeFrom,
                    "add the patterns of a file: one a line, # comments; a line ending in / names folders");
    if (!forNew) {
        cmd->add_option("--no-exclude-ext", input.noExcludeExt, "drop a file pattern (repeat)");
        cmd->add_option("--no-exclude-folder", input.noExcludeFolder, "drop a folder pattern (repeat)");
    }
    auto* skip = cmd->add_flag("--skip-hidden", input.skipHidden,
                               "leave out every name that begins with \".\" (dotfiles are backed up by default)");
    if (!forNew)
        cmd->add_flag("--back-up-hidden", input.backUpHidden, "back up names that begin with \".\" again")
            ->excludes(skip);
}

} // namespace

void addTaskCommands(CLI::App& app, Runner& run) {
    auto args = std::make_shared<TaskArgs>();
    auto* task = app.add_subcommand("task", "make, list, show, change, delete and move backup tasks");
    task->require_subcommand(1);

    auto* list = task->add_subcommand("list", "every task of the account with its state");
    list->callback([&run] { run = listCommand; });

    auto* show = task->add_subcommand("show", "one task in full");
    show->add_option("name", args->name, "the task")->required();
    show->callback([&run, args] { run = [args](auto& g, auto& o) { return showCommand(*args, g, o); }; });

    auto* create = task->add_subcommand("new", "make a task; a task without a schedule backs up at once");
    create->add_option("name", args->name, "the task's name (default: a proposed one)");
    addInputOptions(create, args->input, true);
    create->add_flag("--encrypt", args->input.encrypt,
                     "store the files encrypted with a pass phrase (CIRROVAULT_PASSPHRASE, or asked)");
    create->callback([&run, args] { run = [args](auto& g, auto& o) { return newCommand(*args, g, o); }; });

    auto* edit = task->add_subcommand("edit", "change a task's settings; sources and exclusions named are added "
                                              "(--source, --exclude-*) or dropped (--remove-source, --no-exclude-*), "
                                              "the others stay");
    edit->add_option("name", args->name, "the task")->required();
    addInputOptions(edit, args->input, false);
    edit->add_option("--remove-source", args->removeSources, "stop backing up this source (repeat)");
    edit->add_option("--rename", args->rename, "give the task a new name");
    edit->add_flag("--clear-excludes", args->clearExcludes, "drop every exclusion pattern (before adding the ones named)");
    edit->callback([&run, args] { run = [args](auto& g, auto& o) { return editCommand(*args, g, o); }; });

    auto* remove = task->add_subcommand("delete", "delete a task and (unless kept) its files on the service");
    remove->add_option("name", args->name, "the task")->required();
    remove->add_flag("--keep-server-files", args->keepServerFiles,
                     "keep the files on the service (renamed to <computer>.<time>.<task>)");
    remove->callback([&run, args] { run = [args](auto& g, auto& o) { return deleteCommand(*args, g, o); }; });

    auto* migrate = task->add_subcommand("migrate", "move a task made on another computer to this one");
    migrate->add_option("name", args->name, "the task")->required();
    migrate->add_option("--to", args->to, "the local folder that now holds the task's folders")->required();
    addPassPhraseOptions(migrate, args->passPhrase, false);
    migrate->callback([&run, args] { run = [args](auto& g, auto& o) { return migrateCommand(*args, g, o); }; });
}

} // namespace cirrovault::cli

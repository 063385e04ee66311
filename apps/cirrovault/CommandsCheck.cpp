// check [TASK] [--read-data] [--compare]: is everything the service lists for a task
// really there and whole?
#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <set>

#include "Commands.h"
#include "RestoreSupport.h"
#include "Signals.h"
#include "TaskFormat.h"
#include "engine/task/VersionOwners.h"
#include "platform/framework/FileCrypto.h"
#include "platform/framework/PathTreeController.h"
#include "platform/framework/ServerName.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/FileSystem.h"
#include "support/GlobalFunction.h"

namespace cirrovault::cli {

namespace {

struct CheckArgs {
    std::string name;
    bool readData = false;
    bool compare = false;
    PassPhraseOptions passPhrase;
};

struct Problem {
    std::string path; // relative to the task, "/" separated
    std::string what;
};

struct TaskReport {
    std::string task;
    size_t files = 0;
    size_t versions = 0;
    uint64_t bytesRead = 0;
    std::vector<Problem> problems;
    bool cancelled = false;
};

bool sameContent(const std::string& a, const std::string& b) {
    auto left = FileSystem::readFile(a);
    auto right = FileSystem::readFile(b);
    return left && right && *left == *right;
}

class TaskCheck {
public:
    TaskCheck(const CheckArgs& args, HostSession& session, const HostSession::TaskPtr& task)
        : args_(args), task_(task), where_(session, task) {
        report_.task = task->name;
        overhead_ = where_.encrypted() ? FileCrypto::Overhead : 0;
    }

    TaskReport run() {
        auto files = where_.files();
        if (args_.readData)
            passPhrase_ = where_.passPhrase(args_.passPhrase, where_.sampleFile());
        std::set<std::string> names;
        for (const auto& [rel, info] : files)
            names.insert(rel);
        // What the next run would send is named once, not again for each way it differs.
        bool compare = args_.compare && !task_->bMigrateTask && !where_.localTop().empty();
        std::set<std::string> pending;
        if (compare) {
            uint64_t bytes = 0;
            std::string top = where_.localTop() + "/";
            for (const auto& path : RestoreSupport::pendingFiles(task_, bytes))
                pending.insert(path.compare(0, top.size(), top) == 0 ? path.substr(top.size()) : path);
        }
        for (const auto& [rel, info] : files) {
            if (stopped())
                return report_;
            ++report_.files;
            std::string local = compare ? where_.localTop() + "/" + rel : "";
            // A ".part" beside its finished copy is left over, unless the source has one.
            if (rel.ends_with(".part") && names.count(rel.substr(0, rel.size() - 5)) &&
                !(compare && FileSystem::exists(local)))
                problem(rel, text("CheckStrayPart", "an unfinished upload left beside the finished copy"));
            checkStored(rel, info, pending.count(rel) ? "" : local);
        }
        checkVersions(files);
        for (const auto& rel : pending)
            problem(rel, text("CheckNotStored", "not stored as it is in the source (new, or changed since the last backup)"));
        return report_;
    }

private:
    bool stopped() {
        if (Signals::pending())
            report_.cancelled = true;
        return report_.cancelled;
    }

    void problem(const std::string& path, const std::string& what) { report_.problems.push_back({path, what}); }

    // One stored copy: its size, and with --read-data its bytes; local is the source file
    // to compare with ("" for none).
    void checkStored(const std::string& rel, const PathInfo& info, const std::string& local) {
        if (info.iSize < overhead_) {
            problem(rel, text("CheckTooShort", "{} bytes stored: shorter than any encrypted copy (truncated)", info.iSize));
            return;
        }
        uint64_t plainSize = info.iSize - overhead_;
        auto source = local.empty() ? std::nullopt : FileSystem::status(local);
        if (source && source->size != plainSize)
            problem(rel, text("CheckSizeDiffers", "{} bytes stored for {} bytes in the source{}", info.iSize, source->size,
                              overhead_ ? text("CheckPlusHeader", " (an encrypted copy is 128 bytes longer)") : ""));
        if (!args_.readData)
            return;
        std::string copy;
        int64_t code = where_.readBack(info.path, passPhrase_, copy);
        if (code != ResultCode::Success) {
            problem(rel, text("CheckUnreadable", "cannot be read back: {}", TransferApiUtil::stringWithReturnCode(code)));
        } else if (auto back = FileSystem::status(copy); !back || back->size != plainSize) {
            problem(rel, text("CheckReadSize", "{} bytes read back where {} are listed", back ? back->size : 0, plainSize));
        } else {
            report_.bytesRead += back->size;
            if (source && source->size == plainSize && !sameContent(copy, local))
                problem(rel, text("CheckContentDiffers", "its content differs from the source"));
        }
        FileSystem::removeItem(copy);
    }

    // The older versions: each one whole, and for each file no number missing below its
    // highest among those its versions could have been given (a gap is a version lost on
    // the service). Which file a version belongs to depends on the names beside the file.
    void checkVersions(const std::vector<std::pair<std::string, PathInfo>>& files) {
        if (where_.historyFolder().empty())
            return;
        std::string top = where_.historyFolder() + "\\" + task_->name;
        PathInfo folder;
        if (!TransferApiUtil::sharePathTreeController().FindPath(top, folder, false))
            return;
        std::vector<PathInfo> all;
        int64_t code = TransferApiUtil::sharePathTreeController().GetSubList(top, all, false, true);
        if (code != ResultCode::Success) {
            problem(task_->name, text("CheckNoHistory", "the older versions cannot be listed: {}",
                                      TransferApiUtil::stringWithReturnCode(code)));
            return;
        }
        std::map<std::string, std::vector<std::string>> stored; // folder → its files' stored names
        for (const auto& [rel, info] : files)
            stored[parentOf(rel)].push_back(info.name);
        std::map<std::string, VersionOwners> owners;
        // (folder, the file's stored name) → its versions' numbers
        std::map<std::pair<std::string, std::string>, std::set<uint64_t>> numbers;
        for (const auto& info : all) {
            if (info.bFolder || info.path.compare(0, top.size() + 1, top + "\\") != 0)
                continue;
            if (stopped())
                return;
            std::string rel = ServerName::decodePath(info.path.substr(top.size() + 1));
            ++report_.versions;
            checkStored(rel, info, "");
            std::string parent = parentOf(rel);
            auto found = owners.find(parent);
            if (found == owners.end())
                found = owners.emplace(parent, VersionOwners(stored[parent])).first;
            if (auto owner = found->second.of(info.name))
                numbers[{parent, owner->file}].insert(owner->number);
        }
        for (const auto& [file, kept] : numbers) {
            const auto& [parent, name] = file;
            std::string rel = (parent.empty() ? "" : parent + "/") + ServerName::decode(name);
            // Numbers this system did not write could be of any size: the walk has a bound.
            uint64_t highest = *kept.rbegin(), bound = std::min<uint64_t>(highest, 100'000);
            for (uint64_t n = 0; n < bound; ++n)
                if (!kept.count(n) && owners.at(parent).numberFits(name, n))
                    problem(rel, text("CheckVersionMissing", "older version {} is missing (versions up to {} are kept)", n,
                                      highest));
        }
    }

    static std::string parentOf(const std::string& rel) {
        auto slash = rel.rfind('/');
        return slash == std::string::npos ? "" : rel.substr(0, slash);
    }

    const CheckArgs& args_;
    HostSession::TaskPtr task_;
    RestoreSupport where_;
    uint64_t overhead_ = 0;
    std::string passPhrase_;
    TaskReport report_;
};

int checkCommand(const CheckArgs& args, const GlobalOptions& global, const Output& out) {
    Signals::install();
    HostSession session(global, out);
    session.logon(false);
    std::vector<HostSession::TaskPtr> tasks;
    if (!args.name.empty())
        tasks.push_back(session.task(args.name));
    else
        tasks = session.manager().getTasksList();
    if (tasks.empty())
        throw CliError(Exit::Usage, text("CheckNoTasks", "there is no task to check"));

    Json list = Json::array();
    size_t problems = 0;
    bool cancelled = false;
    for (const auto& task : tasks) {
        TaskReport report = TaskCheck(args, session, task).run();
        problems += report.problems.size();
        cancelled = cancelled || report.cancelled;
        Json found = Json::array();
        for (const auto& p : report.problems) {
            out.line(text("CheckProblemLine", "problem  {}: {}: {}", report.task, p.path, p.what));
            Json j = Json::object();
            j.set("path", p.path).set("problem", p.what);
            found.push(j);
        }
        out.line(text("CheckTaskLine", "\"{}\": {} and {} checked{}; {}.", report.task,
                      TaskFormat::countText(report.files, "file", "files"),
                      TaskFormat::countText(report.versions, "older version", "older versions"),
                      args.readData ? text("CheckReadBack", ", {} read back", GlobalFunction::stringFromFileSize(report.bytesRead))
                                    : "",
                      TaskFormat::countText(report.problems.size(), "problem", "problems")));
        Json t = Json::object();
        t.set("task", report.task).set("files", static_cast<uint64_t>(report.files))
            .set("versions", static_cast<uint64_t>(report.versions)).set("bytesRead", report.bytesRead)
            .set("problems", found);
        list.push(t);
        if (cancelled)
            break;
    }
    Json doc = Json::object();
    doc.set("ok", problems == 0 && !cancelled).set("readData", args.readData).set("compare", args.compare)
        .set("cancelled", cancelled).set("tasks", list);
    out.result(doc);
    if (cancelled) {
        std::fprintf(stderr, "cirrovault: %s\n", text("CheckCancelled", "the check was cancelled").c_str());
        return Exit::Cancelled;
    }
    if (problems > 0) {
        std::fprintf(stderr, "cirrovault: %s\n", text("CheckFound", "the check found {}", TaskFormat::countText(problems, "problem", "problems")).c_str());
        return Exit::Failed;
    }
    return Exit::Ok;
}

} // namespace

void addCheckCommands(CLI::App& app, Runner& run) {
    auto args = std::make_shared<CheckArgs>();
    auto* check = app.add_subcommand(
        "check", "check that every file and older version a task lists on the service is there and whole "
                 "(all tasks when none is named); exit 0 only when all is well");
    check->add_option("name", args->name, "the task");
    check->add_flag("--read-data", args->readData,
                    "read every stored file back (an encrypted one is decrypted and its check code verified)");
    check->add_flag("--compare", args->compare, "also compare the stored files with the task's source folders");
    addPassPhraseOptions(check, args->passPhrase, false);
    check->callback([&run, args] { run = [args](auto& g, auto& o) { return checkCommand(*args, g, o); }; });
}

} // namespace cirrovault::cli

// logon, logoff, status.
#include <iostream>

#include "Commands.h"
#include "Credentials.h"
#include "EventLogFile.h"
#include "TaskFormat.h"
#include "platform/framework/AccountBalance.h"
#include "platform/framework/NimboSetting.h"
#include "platform/framework/PasswordMan.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/store/StoreBackend.h"
#include "support/CErrorLog.h"
#include "support/GlobalFunction.h"

namespace cirrovault::cli {

namespace {

int logonCommand(const GlobalOptions& global, const Output& out) {
    // Said before the password is sent: plain HTTP carries it readable by anyone on the way.
    std::string url = global.service.empty() ? TransferApiUtil::defaultServiceURL() : global.service;
    bool clearText = url.rfind("webdav://", 0) == 0;
    if (clearText)
        std::cerr << text("CliClearTextWarning",
                          "Warning: {} is plain HTTP: the password crosses the network unencrypted "
                          "(use webdavs://).",
                          url)
                  << std::endl;
    HostSession session(global, out);
    session.logon(false);
    if (!Credentials::remember(session.userName(), session.password()))
        throw CliError(Exit::Failed, text("CliCannotKeep", "logged on, but the account could not be kept in {}",
                                          PasswordMan::PasswordFilePath()));
    if (!global.service.empty())
        NimboSetting::SetSettingValueForKey("ServiceURL", global.service);
    bool inKeyring = PasswordMan().AccountInKeyring();
    out.line(text("CliLoggedOn", "Logged on as {} (customer {}) at {}.", session.userName(),
                  session.customerID(), session.serviceURL()));
    out.line(inKeyring ? text("CliKeptInKeyring", "The account is kept for the daemon and later commands "
                                                  "in the desktop keyring.")
                       : text("CliKept", "The account is kept for the daemon and later commands in {} "
                                         "(readable by you only).",
                              PasswordMan::PasswordFilePath()));
    Json doc = Json::object();
    doc.set("ok", true).set("user", session.userName()).set("customerID", session.customerID())
        .set("service", session.serviceURL()).set("credentialsFile", PasswordMan::PasswordFilePath())
        .set("credentialsStore", inKeyring ? "keyring" : "file").set("clearText", clearText);
    out.result(doc);
    return Exit::Ok;
}

int logoffCommand(const GlobalOptions&, const Output& out) {
    auto account = PasswordMan().GetAccount();
    if (!Credentials::forget())
        throw CliError(Exit::Failed, text("CliCannotForget", "the kept account could not be removed from {}",
                                          PasswordMan::PasswordFilePath()));
    out.line(account ? text("CliForgot", "The account {} is no longer kept on this computer.", account->userName)
                     : text("CliNothingKept", "No account was kept on this computer."));
    Json doc = Json::object();
    doc.set("ok", true).set("removed", account ? Json(account->userName) : Json());
    out.result(doc);
    return Exit::Ok;
}

int statusCommand(const GlobalOptions& global, const Output& out) {
    HostSession session(global, out);
    session.logon(false);
    TransferApiUtil& api = TransferApiUtil::shareTransferApiUtil();
    AccountBalance balance;
    int64_t code = api.GetAccountBalance(balance);
    Json doc = Json::object();
    doc.set("ok", true).set("user", session.userName()).set("customerID", session.customerID())
        .set("service", session.serviceURL());
    out.line(text("CliStatusAccount", "account     {} (customer {})", session.userName(), session.customerID()));
    out.line(text("CliStatusService", "service     {}", session.serviceURL()));
    PasswordMan passwords;
    bool kept = passwords.GetAccount().has_value();
    bool inKeyring = kept && passwords.AccountInKeyring();
    out.line(!kept        ? text("CliStatusNotKept", "secrets     account not kept on this computer")
             : inKeyring ? text("CliStatusKeyring", "secrets     desktop keyring")
                         : text("CliStatusFile", "secrets     {} (readable by you only)",
                                PasswordMan::PasswordFilePath()));
    doc.set("credentialsStore", !kept ? Json() : Json(inKeyring ? "keyring" : "file"));
    if (code == ResultCode::Success) {
        uint64_t used = static_cast<uint64_t>(std::max<int64_t>(balance.fileSpaceUsed, 0));
        uint64_t max = static_cast<uint64_t>(std::max<int64_t>(balance.maxSpace, 0));
        uint64_t free = max > used ? max - used : 0;
        if (balance.maxSpace >= StoreQuota::Unknown) {
            out.line(text("CliStatusSpaceNoQuota", "space       {} used, free: unknown",
                          GlobalFunction::stringFromFileSize(used)));
            doc.set("spaceUsed", used).set("spaceFree", Json()).set("spaceTotal", Json());
        } else {
            out.line(text("CliStatusSpace", "space       {} used, {} free of {}", GlobalFunction::stringFromFileSize(used),
                          GlobalFunction::stringFromFileSize(free), GlobalFunction::stringFromFileSize(max)));
            doc.set("spaceUsed", used).set("spaceFree", free).set("spaceTotal", max);
        }
    } else {
        out.line(text("CliStatusNoSpace", "space       unknown: {}", TransferApiUtil::stringWithReturnCode(code)));
    }
    // The daemon holds the run lock only while a task runs; its own lock says it is up.
    auto holder = RunLock::holder(session.accountFolder());
    auto daemon = RunLock::holder(session.accountFolder(), RunLock::kDaemonFile);
    if (holder)
        out.line(text("CliStatusEngineBusy", "engine      running in process {}", *holder));
    else if (daemon)
        out.line(text("CliStatusDaemonIdle", "engine      daemon in process {}, idle", *daemon));
    else
        out.line(text("CliStatusEngineIdle", "engine      not running (start it with `cirrovault daemon`)"));
    doc.set("enginePid", holder ? Json(static_cast<int64_t>(*holder)) : Json());
    doc.set("daemonPid", daemon ? Json(static_cast<int64_t>(*daemon)) : Json());
    Json tasks = Json::array();
    auto list = session.manager().getTasksList();
    // A task's last run as the event log tells it: the task list keeps only the last
    // success, and a run that failed would otherwise show as "never".
    const std::vector<EventRecord> log = readEventLog(CErrorLog::GetEventLogFilePath());
    out.line(list.empty() ? text("CliStatusNoTasks", "tasks       none") : text("CliStatusTasks", "tasks"));
    for (const auto& task : list) {
        Json entry = TaskFormat::toJson(*task, false);
        int32_t kind = task->taskType & CBackupTask::ScheduleKindMask;
        std::string line = "  " + task->name + "  [" + TaskFormat::stateName(task->mTaskState) + "]  last backup " +
                           TaskFormat::dateText(task->mBackupDate);
        if (kind != CBackupTask::ScheduleNone)
            line += ", next run " + TaskFormat::dateText(task->mDating);
        if (task->bMigrateTask)
            line += "  (made on " + task->mPCName + ")";
        out.line(line);
        std::string error = task->strErrLog.value_or("");
        if (auto last = lastRunOf(log, task->name)) {
            std::string result = last->finished  ? text("CliLastRunDone", "succeeded")
                                 : !last->error.empty() ? text("CliLastRunFailed", "failed")
                                                        : text("CliLastRunUnfinished", "did not finish");
            out.line(text("CliStatusLastRun", "      last run: {} {}", last->started, result));
            entry.set("lastRun", last->started).set("lastResult", result);
            if (error.empty() && !last->finished)
                error = last->error;
        }
        if (!error.empty()) {
            out.line(text("CliStatusLastError", "      last error: {}", error));
            entry.set("lastError", error);
        }
        tasks.push(entry);
    }
    doc.set("tasks", tasks);
    out.result(doc);
    return Exit::Ok;
}

} // namespace

void addAccountCommands(CLI::App& app, Runner& run) {
    auto* logon = app.add_subcommand("logon", "log on and keep the account (0600) for the daemon and later commands");
    logon->callback([&run] { run = logonCommand; });
    auto* logoff = app.add_subcommand("logoff", "forget the kept account on this computer");
    logoff->callback([&run] { run = logoffCommand; });
    auto* status = app.add_subcommand("status", "the account, its space, and every task with its state");
    status->callback([&run] { run = statusCommand; });
}

} // namespace cirrovault::cli

// log, options.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <memory>
#include <optional>

#include "Commands.h"
#include "EventLogFile.h"
#include "platform/framework/LoadString.h"
#include "platform/os/FileSystem.h"
#include "support/CErrorLog.h"
#include "support/OptionsMan.h"

namespace cirrovault::cli {

namespace {

struct LogArgs {
    bool clear = false;
    size_t last = 0;
};

struct OptionArgs {
    bool publicFile = false;
    std::vector<std::string> assignments; // KEY=VALUE
};

// The kind's number from its stored label (the log keeps the label, not the number).
int kindOf(const std::string& label) {
    const char* keys[] = {"eventLogNormal", "eventLogWarning", "eventLogError"};
    for (int i = 0; i < 3; ++i)
        if (!label.empty() && label == LoadString::GetValueByKey(keys[i], ""))
            return i;
    return -1;
}

int logCommand(const LogArgs& args, const GlobalOptions& global, const Output& out) {
    HostSession session(global, out);
    session.logon(args.clear);
    std::string path = CErrorLog::GetEventLogFilePath();
    if (args.clear) {
        if (!CErrorLog::clearAllEventLog())
            throw CliError(Exit::Failed, text("CliLogNotCleared", "the event log {} could not be cleared", path));
        out.line(text("CliLogCleared", "The event log is empty now."));
        Json doc = Json::object();
        doc.set("ok", true).set("cleared", true);
        out.result(doc);
        return Exit::Ok;
    }
    // The log's own reader only knows files written in this process; the host reads the
    // account's file itself.
    std::vector<Json> records;
    std::vector<std::string> lines;
    for (const EventRecord& record : readEventLog(path)) {
        Json j = Json::object();
        j.set("time", record.time).set("kind", record.kind).set("kindNumber", kindOf(record.kind))
            .set("task", record.task).set("taskID", record.taskID).set("message", record.message);
        records.push_back(j);
        char label[16];
        std::snprintf(label, sizeof label, "%-11s", record.kind.c_str());
        lines.push_back(record.time + "  " + label + "  " + record.task + ": " + record.message);
    }
    size_t from = args.last && args.last < lines.size() ? lines.size() - args.last : 0;
    if (lines.empty())
        out.line(text("CliLogEmpty", "The event log is empty."));
    for (size_t i = from; i < lines.size(); ++i)
        out.line(lines[i]);
    Json list = Json::array();
    for (size_t i = from; i < records.size(); ++i)
        list.push(records[i]);
    Json doc = Json::object();
    doc.set("ok", true).set("file", path).set("records", list);
    out.result(doc);
    return Exit::Ok;
}

struct OptionInfo {
    const char* key;
    const char* group;
    const char* kind; // bool, minutes, text
    const char* help;
};

const OptionInfo kOptions[] = {
    {AutoRunKey, SystemOptionsKey, "bool", "log on by itself when the session starts"},
    {UseSSLKey, SystemOptionsKey, "bool", "use a secure connection to the service"},
    {AutoScheduleTypeKey, MyOptionsKey, "bool", "start scheduled backups a few minutes after logon"},
    {AutoStartMinutesKey, MyOptionsKey, "minutes", "those minutes"},
    {reportEmailKey, EventLogKey, "text", "where result reports are mailed"},
    {reportWhenErrorKey, EventLogKey, "bool", "mail a report when a backup fails"},
    {reportWhenFinishKey, EventLogKey, "bool", "mail a report when a backup ends"},
    {TransfersKey, SystemOptionsKey, "count", "files sent at once to a WebDAV server (1-16)"},
};

Json currentValue(const OptionInfo& o) {
    std::string key = o.key;
    if (key == AutoRunKey) return OptionsMan::IsAutoRun();
    if (key == UseSSLKey) return OptionsMan::IsUseSSL();
    if (key == AutoScheduleTypeKey) return OptionsMan::IsAutoStartScheduleAfterMinutes();
    if (key == AutoStartMinutesKey) return static_cast<uint64_t>(OptionsMan::intervalMinutes());
    if (key == reportEmailKey) return OptionsMan::reportEmail();
    if (key == reportWhenErrorKey) return OptionsMan::IsReportWhenError();
    if (key == TransfersKey) return static_cast<uint64_t>(OptionsMan::transfers());
    return OptionsMan::IsReportWhenFinish();
}

std::string shown(const OptionInfo& o) {
    std::string key = o.key;
    if (key == AutoStartMinutesKey) return std::to_string(OptionsMan::intervalMinutes());
    if (key == reportEmailKey) return OptionsMan::reportEmail().empty() ? "(none)" : OptionsMan::reportEmail();
    return currentValue(o).dump();
}

std::optional<bool> parseBool(std::string v) {
    std::transform(v.begin(), v.end(), v.begin(), [](unsigned char c) { return std::tolower(c); });
    if (v == "true" || v == "yes" || v == "on" || v == "1")
        return true;
    if (v == "false" || v == "no" || v == "off" || v == "0")
        return false;
    return std::nullopt;
}

void assign(const std::string& assignment) {
    auto eq = assignment.find('=');
    std::string name = assignment.substr(0, eq);
    const OptionInfo* option = nullptr;
    for (const auto& o : kOptions) {
        std::string a = o.key, b = name;
        std::transform(a.begin(), a.end(), a.begin(), ::tolower);
        std::transform(b.begin(), b.end(), b.begin(), ::tolower);
        if (a == b)
            option = &o;
    }
    if (eq == std::string::npos || !option) {
        std::string keys;
        for (const auto& o : kOptions)
            keys += std::string(keys.empty() ? "" : ", ") + o.key;
        throw CliError(Exit::Usage, text("CliBadOption", "\"{}\" is not KEY=VALUE with a KEY of: {}", assignment, keys));
    }
    std::string value = assignment.substr(eq + 1);
    std::string key = option->key;
    if (std::string(option->kind) == "bool") {
        auto b = parseBool(value);
        if (!b)
            throw CliError(Exit::Usage, text("CliBadBool", "{} takes yes or no, not \"{}\"", key, value));
        if (key == AutoRunKey) OptionsMan::SetAutoRun(*b);
        else if (key == UseSSLKey) OptionsMan::SetUseSSL(*b);
        else if (key == AutoScheduleTypeKey) OptionsMan::SetAutoStartScheduleAfterMinutes(*b);
        else if (key == reportWhenErrorKey) OptionsMan::SetReportWhenError(*b);
        else OptionsMan::SetReportWhenFinish(*b);
    } else if (std::string(option->kind) == "minutes") {
        if (value.empty() || value.size() > 6 || value.find_first_not_of("0123456789") != std::string::npos)
            throw CliError(Exit::Usage, text("CliBadMinutes", "{} takes a number of minutes, not \"{}\"", key, value));
        OptionsMan::SetIntervalMinutes(static_cast<uint32_t>(std::stoul(value)));
    } else if (std::string(option->kind) == "count") {
        if (value.empty() || value.size() > 2 || value.find_first_not_of("0123456789") != std::string::npos ||
            std::stoul(value) < 1 || std::stoul(value) > OptionsMan::MaxTransfers)
            throw CliError(Exit::Usage, text("CliBadTransfers", "{} takes a number from 1 to {}, not \"{}\"", key,
                                             OptionsMan::MaxTransfers, value));
        OptionsMan::SetTransfers(static_cast<uint32_t>(std::stoul(value)));
    } else {
        OptionsMan::setReportEmail(value);
    }
}

int optionsCommand(const OptionArgs& args, const GlobalOptions& global, const Output& out) {
    std::unique_ptr<HostSession> session;
    if (!args.publicFile) {
        // The account's options file is named by the account's customer ID.
        session = std::make_unique<HostSession>(global, out);
        session->logon(!args.assignments.empty());
    }
    std::string file = args.publicFile ? OptionsMan::getPublicOptionsFile() : OptionsMan::getOptionsFile();
    OptionsMan::clearnOptionsManClass();
    if (args.publicFile)
        OptionsMan::LoadPublicOptions();
    else
        OptionsMan::LoadOptions();
    if (FileSystem::exists(file) && !OptionsMan::options())
        throw CliError(Exit::Damaged, text("CliOptionsDamaged",
                                           "the options file {} cannot be read; it is left as it is. Repair it, or "
                                           "move it away to start again from the defaults.",
                                           file));
    if (!OptionsMan::options())
        OptionsMan::initOptions();
    for (const auto& a : args.assignments)
        assign(a);
    if (!args.assignments.empty()) {
        if (args.publicFile)
            OptionsMan::SavePublicOptions();
        else
            OptionsMan::SaveOptions();
    }
    Json values = Json::object();
    out.line(text("CliOptionsFile", "options of {} ({})", args.publicFile ? "this computer" : "the account", file));
    for (const auto& o : kOptions) {
        values.set(o.key, currentValue(o));
        char key[24];
        std::snprintf(key, sizeof key, "%-18s", o.key);
        char val[40];
        std::snprintf(val, sizeof val, "%-22s", shown(o).c_str());
        out.line(std::string("  ") + key + val + o.help);
    }
    Json doc = Json::object();
    doc.set("ok", true).set("file", file).set("options", values);
    out.result(doc);
    return Exit::Ok;
}

} // namespace

void addLogCommands(CLI::App& app, Runner& run) {
    auto largs = std::make_shared<LogArgs>();
    auto* log = app.add_subcommand("log", "the account's event log, newest last");
    log->add_flag("--clear", largs->clear, "empty the event log");
    log->add_option("--last", largs->last, "only the last N records");
    log->callback([&run, largs] { run = [largs](auto& g, auto& o) { return logCommand(*largs, g, o); }; });

    auto oargs = std::make_shared<OptionArgs>();
    auto* options = app.add_subcommand(
        "options", "show every option; `options KEY=VALUE...` sets them (AutoRunLogon, UseSSL, AutoScheduleType, "
                   "Minutes, ReportEmail, ReportWhenError, ReportWhenFinish, Transfers)");
    options->add_option("assignments", oargs->assignments, "KEY=VALUE to set");
    options->add_flag("--public", oargs->publicFile, "this computer's options file instead of the account's");
    options->callback([&run, oargs] { run = [oargs](auto& g, auto& o) { return optionsCommand(*oargs, g, o); }; });
}

} // namespace cirrovault::cli

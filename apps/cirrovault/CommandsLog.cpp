// log, options.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <memory>
#include <optional>

#include "Commands.h"
#include "Credentials.h"
#include "EventLogFile.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/MailSender.h"
#include "platform/framework/NimboSetting.h"
#include "platform/framework/PasswordMan.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SecretMemory.h"
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

// Settings of this computer (settings.plist), set beside the account's options: the
// report mail server, and how uploads and change tests behave here.
struct SettingInfo {
    const char* key;
    const char* kind; // smtp, address, secret, bool, number, text
    const char* help;
};

const SettingInfo kSettings[] = {
    {"SMTPURL", "smtp", "mail server of the reports: smtp://host:587 or smtps://user@host (none: reports wait in the outbox folder)"},
    {"SMTPFrom", "address", "sender of the reports (default cirrovault@<this computer>)"},
    {"SMTPPassword", "secret", "password of the user in SMTPURL, kept in the desktop keyring or an owner-only file; - asks for it"},
    {"DesktopNotifications", "bool", "tell the desktop when a backup fails or ends (default yes; needs a desktop session)"},
    {"LimitUpload", "number", "upload speed limit in KiB/s, 0 for none (--limit-upload sets it for one command)"},
    {"Quota", "number", "bytes the account may hold on a WebDAV server that tells no quota"},
    {"IgnoreTimeSpan", "number", "seconds by which equal-sized files' times may differ on stores that keep whole seconds"},
    {"UploadLocalPathCount", "text", "any text sends a task's folders to the task list in batches of 100"},
};

bool sameKey(std::string a, std::string b) {
    std::transform(a.begin(), a.end(), a.begin(), ::tolower);
    std::transform(b.begin(), b.end(), b.begin(), ::tolower);
    return a == b;
}

std::string allKeys() {
    std::string keys;
    for (const auto& o : kOptions)
        keys += std::string(keys.empty() ? "" : ", ") + o.key;
    for (const auto& s : kSettings)
        keys += std::string(", ") + s.key;
    return keys;
}

// The setting as listings show it: a password typed into the SMTP URL by hand stays
// out of them.
std::optional<std::string> printable(const SettingInfo& s) {
    auto value = NimboSetting::GetSetting(s.key);
    std::string url, password;
    if (value && std::string(s.kind) == "smtp" && MailSender::splitServerURL(*value, url, password)) {
        SecretMemory::wipe(password);
        return url;
    }
    return value;
}

Json settingValue(const SettingInfo& s) {
    if (std::string(s.kind) == "secret")
        return PasswordMan().GetMailPassword().has_value();
    auto value = printable(s);
    return value ? Json(*value) : Json();
}

std::string shownSetting(const SettingInfo& s) {
    if (std::string(s.kind) == "secret")
        return PasswordMan().GetMailPassword() ? "(kept)" : "(none)";
    return printable(s).value_or("(none)");
}

bool isNumber(const std::string& v) {
    return !v.empty() && v.size() <= 18 && v.find_first_not_of("0123456789") == std::string::npos;
}

// A checked setting, written only once every assignment of the command is known good.
// An empty value removes the setting: the program's default holds again.
struct SettingChange {
    const SettingInfo* setting;
    std::string value;
    std::optional<std::string> password; // a secret to keep ("" removes it)
};

SettingChange checkSetting(const SettingInfo& s, std::string value) {
    std::string kind = s.kind;
    std::string key = s.key;
    SettingChange change{&s, kind == "secret" ? "" : value, std::nullopt};
    if (kind == "secret") {
        if (value == "-") {
            auto asked = Credentials::prompt(text("CliAskSmtpPassword", "Password of the mail server: "));
            if (!asked)
                throw CliError(Exit::Usage, text("CliNoSmtpPassword", "{}=- needs a terminal to ask at", key));
            value = *asked;
        }
        change.password = value;
        SecretMemory::wipe(value);
        return change;
    }
    if (value.empty())
        return change;
    if (kind == "smtp") {
        std::string password;
        // The value is not repeated: it may hold a password.
        if (!MailSender::splitServerURL(value, change.value, password))
            throw CliError(Exit::Usage, text("CliBadSmtpURL", "{} takes smtp://host[:port] or smtps://user@host", key));
        // A password typed into the URL is kept with the other secrets, never in the
        // settings file that listings print.
        if (!password.empty())
            change.password = password;
        SecretMemory::wipe(password);
    } else if (kind == "address" && MailSender::splitRecipients(value).size() != 1) {
        throw CliError(Exit::Usage, text("CliBadAddress", "{} takes one mail address, not \"{}\"", key, value));
    } else if (kind == "bool") {
        auto b = parseBool(value);
        if (!b)
            throw CliError(Exit::Usage, text("CliBadBool", "{} takes yes or no, not \"{}\"", key, value));
        change.value = *b ? "yes" : "no";
    } else if (kind == "number" && !isNumber(value)) {
        throw CliError(Exit::Usage, text("CliBadNumber", "{} takes a whole number, not \"{}\"", key, value));
    }
    return change;
}

void writeSetting(SettingChange& change) {
    if (change.password) {
        bool kept = change.password->empty() ? PasswordMan().RemoveMailPassword()
                                             : PasswordMan().SetMailPassword(*change.password);
        SecretMemory::wipe(*change.password);
        if (!kept)
            throw CliError(Exit::Failed, text("CliSecretNotKept", "the password could not be kept; see `cirrovault --verbose`"));
    }
    if (std::string(change.setting->kind) == "secret")
        return;
    std::string key = change.setting->key;
    bool written = change.value.empty() ? NimboSetting::RemoveSettingForKey(key)
                                        : NimboSetting::SetSettingValueForKey(key, change.value);
    if (!written)
        throw CliError(Exit::Failed, text("CliSettingNotWritten", "the settings file {} could not be written",
                                          NimboSetting::SettingsFilePath()));
}

// Sets an option in memory (answering true: the options file is to be saved), or checks
// a setting into settings.
bool assign(const std::string& assignment, std::vector<SettingChange>& settings) {
    auto eq = assignment.find('=');
    std::string name = assignment.substr(0, eq);
    const OptionInfo* option = nullptr;
    for (const auto& o : kOptions)
        if (sameKey(o.key, name))
            option = &o;
    const SettingInfo* setting = nullptr;
    for (const auto& s : kSettings)
        if (sameKey(s.key, name))
            setting = &s;
    if (eq == std::string::npos || (!option && !setting))
        throw CliError(Exit::Usage, text("CliBadOption", "\"{}\" is not KEY=VALUE with a KEY of: {}", assignment, allKeys()));
    std::string value = assignment.substr(eq + 1);
    if (setting) {
        settings.push_back(checkSetting(*setting, value));
        return false;
    }
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
    return true;
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
    bool optionsChanged = false;
    std::vector<SettingChange> settingChanges;
    for (const auto& a : args.assignments)
        optionsChanged = assign(a, settingChanges) || optionsChanged;
    for (auto& change : settingChanges)
        writeSetting(change);
    if (optionsChanged) {
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
        std::snprintf(key, sizeof key, "%-21s", o.key);
        char val[40];
        std::snprintf(val, sizeof val, "%-22s", shown(o).c_str());
        out.line(std::string("  ") + key + val + o.help);
    }
    Json settings = Json::object();
    out.line(text("CliSettingsFile", "settings of this computer ({})", NimboSetting::SettingsFilePath()));
    for (const auto& s : kSettings) {
        settings.set(s.key, settingValue(s));
        char key[24];
        std::snprintf(key, sizeof key, "%-21s", s.key);
        std::string value = shownSetting(s);
        value.resize(std::max<size_t>(value.size() + 1, 22), ' ');
        out.line(std::string("  ") + key + value + s.help);
    }
    Json doc = Json::object();
    doc.set("ok", true).set("file", file).set("options", values).set("settingsFile", NimboSetting::SettingsFilePath())
        .set("settings", settings);
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
        "options", "show every option and setting; `options KEY=VALUE...` sets them, an empty VALUE unsets a "
                   "setting. The account's options: AutoRunLogon, UseSSL, AutoScheduleType, Minutes, ReportEmail, "
                   "ReportWhenError, ReportWhenFinish, Transfers (files sent at once, 1 to 16). This computer's settings: SMTPURL, SMTPFrom, SMTPPassword "
                   "(- asks for it), DesktopNotifications, LimitUpload (KiB/s), Quota (bytes), IgnoreTimeSpan (seconds), "
                   "UploadLocalPathCount. For example: options SMTPURL=smtps://me@mail.example.org "
                   "SMTPPassword=- ReportEmail=me@example.org ReportWhenError=yes");
    options->add_option("assignments", oargs->assignments, "KEY=VALUE to set");
    options->add_flag("--public", oargs->publicFile, "this computer's options file instead of the account's");
    options->callback([&run, oargs] { run = [oargs](auto& g, auto& o) { return optionsCommand(*oargs, g, o); }; });
}

} // namespace cirrovault::cli

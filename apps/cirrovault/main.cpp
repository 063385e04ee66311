// cirrovault: the command-line host of the backup engine.
#include <cstdio>
#include <cstdlib>
#include <string>

#include <CLI/CLI.hpp>

#include "FolderBackup.h"
#include "engine/task/CBackupTask.h"
#include "platform/framework/AccountBalance.h"
#include "platform/framework/PasswordMan.h"
#include "platform/framework/ResultCodes.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/FileSystem.h"
#include "platform/os/Host.h"
#include "platform/os/SystemLog.h"
#include "support/GlobalFunction.h"

using namespace cirrovault;

namespace {

// Exit codes, documented in --help.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitLogon = 3;

struct Options {
    std::string service;
    std::string user;
    bool verbose = false;
};

std::string passwordFor(const std::string& user) {
    if (const char* env = std::getenv("CIRROVAULT_PASSWORD"); env && *env)
        return env;
    PasswordMan passwords;
    if (auto account = passwords.GetAccount(); account && account->userName == user)
        return account->password;
    return "";
}

int logon(const Options& options) {
    TransferApiUtil& api = TransferApiUtil::shareTransferApiUtil();
    std::string url = options.service.empty() ? TransferApiUtil::defaultServiceURL() : options.service;
    int64_t code = api.OpenService(url);
    if (code != ResultCode::Success) {
        std::fprintf(stderr, "cirrovault: cannot open the service %s: %s\n", url.c_str(),
                     TransferApiUtil::stringWithReturnCode(code).c_str());
        return kExitLogon;
    }
    std::string user = options.user.empty() ? Host::userLoginName() : options.user;
    std::string password = passwordFor(user);
    if (password.empty()) {
        std::fprintf(stderr, "cirrovault: no password for %s: set CIRROVAULT_PASSWORD\n",
                     user.c_str());
        return kExitLogon;
    }
    code = api.Logon(user, password);
    if (code != ResultCode::Success) {
        std::fprintf(stderr, "cirrovault: logon of %s refused: %s\n", user.c_str(),
                     TransferApiUtil::stringWithReturnCode(code).c_str());
        return kExitLogon;
    }
    return kExitOk;
}

int status(const Options& options) {
    if (int rc = logon(options); rc != kExitOk)
        return rc;
    TransferApiUtil& api = TransferApiUtil::shareTransferApiUtil();
    AccountBalance balance;
    int64_t code = api.GetAccountBalance(balance);
    std::printf("account   %s (customer %s)\n", api.userName().c_str(), api.customerID().c_str());
    if (code == ResultCode::Success) {
        uint64_t used = static_cast<uint64_t>(balance.fileSpaceUsed);
        uint64_t max = static_cast<uint64_t>(balance.maxSpace);
        std::printf("space     %s used of %s\n", GlobalFunction::stringFromFileSize(used).c_str(),
                    GlobalFunction::stringFromFileSize(max).c_str());
    }
    api.Logoff();
    return kExitOk;
}

int backupFolder(const Options& options, const std::string& folder, bool list) {
    if (!FileSystem::isDirectoryFollowingLinks(folder)) {
        std::fprintf(stderr, "cirrovault: %s is not a folder\n", folder.c_str());
        return kExitUsage;
    }
    if (int rc = logon(options); rc != kExitOk)
        return rc;
    std::string absolute = folder;
    if (char* real = realpath(folder.c_str(), nullptr)) {
        absolute = real;
        std::free(real);
    }
    std::printf("Backing up %s\n", absolute.c_str());
    FolderBackupResult r = FolderBackup::run(absolute, list);
    if (r.state == CBackupTask::StateSucceeded)
        std::printf("Done: %d new or changed files, %s sent -> %s\n", r.filesToSend,
                    GlobalFunction::stringFromFileSize(r.bytesSent).c_str(),
                    r.serverFolder.c_str());
    else
        std::fprintf(stderr, "cirrovault: the backup %s: %s\n",
                     r.state == CBackupTask::StateCancelled ? "was cancelled" : "failed", r.errorText.c_str());
    TransferApiUtil::shareTransferApiUtil().Logoff();
    return r.state == CBackupTask::StateSucceeded ? kExitOk : kExitFailed;
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"cirrovault: back up folders to your online storage.\n"
                 "Exit codes: 0 done, 1 the work failed, 2 bad input, 3 cannot log on."};
    app.require_subcommand(1);
    Options options;
    app.add_option("--service", options.service,
                   "service URL: file:///path for a local store (default: the setting "
                   "ServiceURL, else the embedded store in the user's data folder)");
    app.add_option("--user", options.user, "account name (default: your login name)");
    app.add_flag("--verbose,-v", options.verbose, "print diagnostic lines on stderr");

    auto* statusCmd = app.add_subcommand("status", "log on and show the account and its space");
    std::string folder;
    bool list = false;
    auto* backupCmd = app.add_subcommand("backup", "back up a folder now (new and changed files)");
    backupCmd->add_option("folder", folder, "the folder to back up")->required();
    backupCmd->add_flag("--list", list, "print every file uploaded");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        int rc = app.exit(e);
        return rc == 0 ? kExitOk : kExitUsage;
    }
    SystemLog::setVerbose(options.verbose);
    try {
        if (*statusCmd)
            return status(options);
        if (*backupCmd)
            return backupFolder(options, folder, list);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "cirrovault: %s\n", e.what());
        return kExitFailed;
    }
    return kExitUsage;
}

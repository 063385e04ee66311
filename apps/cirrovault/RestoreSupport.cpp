#include "RestoreSupport.h"

#include <algorithm>

#include "Output.h"
#include "platform/framework/PasswordMan.h"
#include "platform/framework/PathTreeController.h"
#include "platform/framework/ServerName.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/store/StorePath.h"
#include "support/CFileInfo.h"

namespace cirrovault::cli {

namespace {

std::string trimSlashes(std::string path) {
    while (!path.empty() && path.front() == '/')
        path.erase(0, 1);
    while (!path.empty() && path.back() == '/')
        path.pop_back();
    return path;
}

} // namespace

RestoreSupport::RestoreSupport(HostSession& session, const HostSession::TaskPtr& task) : task_(task) {
    CBackupManage& manager = session.manager();
    manager.GetTaskInformationForRestoreView(task->name);
    // The service answers canonical paths ("\A\b"); the task may keep its own without
    // the leading separator.
    auto canonical = [](const std::string& path) { return StorePath::normalize(path).value_or(path); };
    serverFolder_ = canonical(manager.taskServerPath.empty() ? task->serverPath : manager.taskServerPath);
    historyFolder_ = manager.taskHistoryPath.empty() ? "" : canonical(manager.taskHistoryPath);
    localTop_ = manager.taskBackupLogLocalPath;
}

std::string RestoreSupport::relative(const std::string& path) const {
    std::string rel = path;
    if (!path.empty() && path.front() == '/') {
        std::string top = localTop_;
        if (top.empty() || path.compare(0, top.size() + 1, top + "/") != 0)
            throw CliError(Exit::Usage, text("CliOutsideTask", "{} is not in the task \"{}\" (its files are under {})",
                                             path, task_->name, top.empty() ? "?" : top));
        rel = path.substr(top.size() + 1);
    }
    rel = trimSlashes(rel);
    if (rel.empty() || rel.find("..") != std::string::npos)
        throw CliError(Exit::Usage, text("CliBadPath", "bad path \"{}\"", path));
    return rel;
}

std::string RestoreSupport::serverPathOf(const std::string& relativePath) const {
    return serverFolder_ + "\\" + ServerName::encodePath(relativePath);
}

std::vector<std::pair<std::string, PathInfo>> RestoreSupport::files() const {
    std::vector<PathInfo> all;
    int64_t code = TransferApiUtil::sharePathTreeController().GetSubList(serverFolder_, all, false, true);
    if (code != 0)
        throw CliError(Exit::Failed, text("CliCannotList", "the files of \"{}\" cannot be listed: {}", task_->name,
                                          TransferApiUtil::stringWithReturnCode(code)));
    std::vector<std::pair<std::string, PathInfo>> files;
    std::string prefix = serverFolder_ + "\\";
    for (const auto& info : all) {
        if (info.bFolder || info.path.compare(0, prefix.size(), prefix) != 0)
            continue;
        files.emplace_back(ServerName::decodePath(info.path.substr(prefix.size())), info);
    }
    std::sort(files.begin(), files.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    return files;
}

std::string RestoreSupport::versionFolder(const std::string& relativePath) const {
    std::string folder = historyFolder_ + "\\" + task_->name;
    auto slash = relativePath.rfind('/');
    if (slash != std::string::npos)
        folder += "\\" + ServerName::encodePath(relativePath.substr(0, slash));
    return folder;
}

std::string RestoreSupport::versionPath(const std::string& relativePath, int number) const {
    std::string name = ServerName::encode(CFileInfo::getMacFileName(relativePath, false));
    auto dot = name.rfind('.');
    std::string base = dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
    std::string ext = dot == std::string::npos || dot == 0 ? "" : name.substr(dot);
    return versionFolder(relativePath) + "\\" + base + std::to_string(number) + ext;
}

std::vector<FileVersion> RestoreSupport::versions(const std::string& relativePath) const {
    std::vector<FileVersion> found;
    if (historyFolder_.empty())
        return found;
    std::vector<PathInfo> entries;
    if (TransferApiUtil::sharePathTreeController().GetSubList(versionFolder(relativePath), entries, false, false) != 0)
        return found; // no version folder: no older versions
    std::string name = ServerName::encode(CFileInfo::getMacFileName(relativePath, false));
    auto dot = name.rfind('.');
    std::string base = dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
    std::string ext = dot == std::string::npos || dot == 0 ? "" : name.substr(dot);
    for (const auto& entry : entries) {
        const std::string& n = entry.name;
        if (entry.bFolder || n.size() <= base.size() + ext.size() || n.compare(0, base.size(), base) != 0 ||
            n.compare(n.size() - ext.size(), ext.size(), ext) != 0)
            continue;
        std::string digits = n.substr(base.size(), n.size() - base.size() - ext.size());
        if (digits.empty() || digits.size() > 6 || digits.find_first_not_of("0123456789") != std::string::npos)
            continue;
        found.push_back({std::stoi(digits), entry});
    }
    std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.number < b.number; });
    return found;
}

std::string RestoreSupport::passPhraseFor(const std::string& serverPath) const {
    return PasswordMan().FindPasswordForPath(serverPath).value_or("");
}

} // namespace cirrovault::cli

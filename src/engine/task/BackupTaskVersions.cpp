#include <algorithm>
#include <exception>
#include <set>
#include <utility>
#include <vector>

#include "engine/task/CBackupTask.h"
#include "engine/task/VersionNames.h"
#include "platform/framework/Functions.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/PathTreeController.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/ServerName.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"
#include "service/CManageTaskList.h"
#include "support/CFileInfo.h"
#include "support/GlobalFunction.h"

namespace cirrovault {

namespace {

std::string text(const char* key) {
    return LoadString::GetValueByKey(key, "");
}

// The first source as a path, whether the entry is a plain path or a record: the
// target folder is asked for every uploaded file and must not fail on either form.
std::string firstSourcePath(const CBackupTask& task) {
    if (task.localDirList.empty())
        return "";
    const SourceEntry& entry = task.localDirList.front();
    return entry.isRecord() ? entry.record().m_strPath : entry.path();
}


} // namespace

std::string CBackupTask::getSvrInfoFolder() {
    try {
        return GlobalFunction::getSvrAppFolder(text("IDS_INFOPATH"), text("IDS_INFONOTE"));
    } catch (const std::exception&) {
        SystemLog::write("Error: getSvrInfoFolder");
        return "";
    }
}

std::string CBackupTask::getSvrHistoryFolder(bool bEncrypted) {
    try {
        if (!bEncrypted)
            return GlobalFunction::getSvrAppFolder(text("IDS_HISTFOLDER"), text("IDS_HISTNOTE"));
        // Encrypted tasks keep their history inside the encryption folder, so that the
        // old versions are stored encrypted like the files themselves.
        std::string top = text("EncryptionFolder");
        int64_t code = 0;
        if (!GlobalFunction::CreateSrvFolder(top, "", "", &code))
            return "";
        std::string folder = CFileInfo::serverPathAppend(top, text("IDS_HISTFOLDER"));
        if (!GlobalFunction::CreateSrvHistoryFolder(folder, text("IDS_HISTNOTE"), "", &code))
            return "";
        return folder;
    } catch (const std::exception&) {
        SystemLog::write("Error: getSvrHistoryFolder");
        return "";
    }
}

std::string CBackupTask::GetTopFolder() {
    try {
        return CFileInfo::getMacParentFolder(GetFirstSrcPath());
    } catch (const std::exception&) {
        SystemLog::write("Error: GetTopFolder");
        return "";
    }
}

std::string CBackupTask::getTargetSvrFolder(const std::string& localPath, bool bNoFolderSwitch) {
    try {
        std::string first = firstSourcePath(*this);
        // From the top source folder's own name on: /Users/a/Docs/x/y.txt with the
        // first source /Users/a/Docs gives "\Docs\x\y.txt". Names the service refuses
        // are encoded, never dropped.
        size_t top = first.rfind('/');
        if (top == std::string::npos)
            top = 0;
        std::string rel =
            top < localPath.size() ? ServerName::encodePath(localPath.substr(top)) : std::string();
        if (!bNoFolderSwitch && CFileInfo::isDirectory(localPath))
            return serverPath + rel;
        size_t cut = rel.rfind('\\');
        return serverPath + (cut == std::string::npos ? std::string() : rel.substr(0, cut));
    } catch (const std::exception&) {
        SystemLog::write("Error: getTargetSvrFolder");
        return "";
    }
}

bool CBackupTask::recordCurrent(const std::string& serverFile, uint64_t iMaxVersion,
                                const std::string& /*fileName*/) {
    try {
        if (serverFile.empty() || iMaxVersion < 2)
            return false;
        TransferApiUtil& service = TransferApiUtil::shareTransferApiUtil();
        PathTreeController& tree = TransferApiUtil::sharePathTreeController();

        // Looked up (and made) once per walk: each lookup walks the application tree.
        bool encrypted = Functions::IsEncryptPath(serverPath);
        std::string& history = uploadWalkCache.historyFolder[encrypted ? 1 : 0];
        if (history.empty())
            history = getSvrHistoryFolder(encrypted);
        if (history.empty())
            return false;
        std::string fileFolder = CFileInfo::getServerParentFolder(serverFile);
        std::string versionFolder = CFileInfo::serverPathAppend(history, name);
        std::string sub = CFileInfo::getServerSubFolder(fileFolder, serverPath);
        if (!sub.empty())
            versionFolder = CFileInfo::serverPathAppend(versionFolder, sub);
        // Versions follow the stored name, which the listings below also give.
        std::string own = CFileInfo::GetServerFileName(serverFile);

        // The names beside the file: a version is renamed among them before it moves.
        std::vector<PathInfo> besides;
        tree.GetSubList(fileFolder, besides, false, false);
        std::set<std::string> occupied;
        std::vector<std::string> siblings;
        for (const auto& entry : besides) {
            occupied.insert(entry.name);
            if (!entry.bFolder)
                siblings.push_back(entry.name);
        }
        siblings = VersionNames::rivals(own, siblings);

        // Only this file's own versions count and may go: never another file's, never
        // a folder (the versions of a sub-folder's files).
        std::vector<PathInfo> entries;
        PathInfo folderInfo;
        if (tree.FindPath(versionFolder, folderInfo, false)) {
            tree.GetSubList(versionFolder, entries, false, false);
        } else {
            int64_t code = 0;
            if (!GlobalFunction::CreateSrvFolder(versionFolder, "", "", &code))
                return false;
        }
        std::set<std::string> taken;
        std::vector<std::pair<PathInfo, uint64_t>> mine;
        for (const auto& entry : entries) {
            taken.insert(entry.name);
            if (entry.bFolder)
                continue;
            if (auto number = VersionNames::numberOf(entry.name, own, siblings))
                mine.emplace_back(entry, *number);
        }
        // At most max − 1 versions beside the current copy: the oldest make room.
        std::sort(mine.begin(), mine.end(), [](const auto& a, const auto& b) {
            return a.first.modifyTime != b.first.modifyTime ? a.first.modifyTime < b.first.modifyTime
                                                            : a.second < b.second;
        });
        size_t room = static_cast<size_t>(iMaxVersion - 2);
        for (size_t i = 0; i + room < mine.size(); ++i) {
            const PathInfo& oldest = mine[i].first;
            if (service.DeletePaths({CFileInfo::serverPathAppend(versionFolder, oldest.name)},
                                    nullptr, false) != ResultCode::Success)
                return false;
            taken.erase(oldest.name);
        }

        // The lowest free number whose name no other file would claim.
        std::string newName;
        size_t bound = taken.size() + occupied.size() + 10 * (siblings.size() + 1);
        for (uint64_t number = 0; number <= bound && newName.empty(); ++number) {
            std::string candidate = VersionNames::name(own, number);
            if (!taken.count(candidate) && !occupied.count(candidate) &&
                VersionNames::numberOf(candidate, own, siblings) == number)
                newName = candidate;
        }
        if (newName.empty()) {
            SystemLog::write("Error: no version name for " + serverFile);
            return false;
        }

        // Renamed and moved in one step: a run cut off between a rename in place and the
        // move would leave the version beside the file, to come back as a file of its own.
        if (service.MovePath(serverFile, CFileInfo::serverPathAppend(versionFolder, newName)) !=
            ResultCode::Success) {
            SystemLog::write("Error:Edit file: " + serverFile);
            return false;
        }
        return true;
    } catch (const std::exception&) {
        SystemLog::write("Error: recordCurrent");
        return false;
    }
}

std::string CBackupTask::getOldTimeHistoryFile(const std::string& serverFolder) {
    try {
        std::vector<PathInfo> entries;
        TransferApiUtil::sharePathTreeController().GetSubList(serverFolder, entries, false, false);
        const PathInfo* oldest = nullptr;
        for (const auto& entry : entries)
            if (!oldest || entry.modifyTime.timeIntervalSinceDate(oldest->modifyTime) < 0)
                oldest = &entry;
        return oldest ? oldest->name : "";
    } catch (const std::exception&) {
        SystemLog::write("Error: getOldTimeHistoryFile");
        return "";
    }
}

bool CBackupTask::copyBackupFile(const std::string& strSrcFile, const std::string& strDesFile,
                                 int64_t* /*iRetCopy*/) {
    try {
        // The copy keeps the source's own name and modification time; only the
        // destination's folder counts.
        std::string target = CFileInfo::MacPathAppend(CFileInfo::getMacParentFolder(strDesFile),
                                                      CFileInfo::getMacFileName(strSrcFile, false));
        auto status = FileSystem::status(strSrcFile);
        auto content = FileSystem::readFile(strSrcFile);
        if (!status || !content || !FileSystem::writeFileAtomically(target, *content)) {
            SystemLog::write("Error: copyBackupFile " + strSrcFile);
            return false;
        }
        FileSystem::setModifyTime(target, status->modifyTime);
        return true;
    } catch (const std::exception&) {
        SystemLog::write("Error: copyBackupFile");
        return false;
    }
}

void CBackupTask::getTaskSizeFromServer() {
    try {
        PathTreeController& tree = TransferApiUtil::sharePathTreeController();
        PathInfo info;
        uiRemoteSize = tree.FindPath(serverPath, info, false) ? info.iSize : 0;
        std::string history = getSvrHistoryFolder(Functions::IsEncryptPath(serverPath));
        PathInfo versions;
        if (!history.empty() &&
            tree.FindPath(CFileInfo::serverPathAppend(history, name), versions, false))
            uiRemoteSize += versions.iSize;
    } catch (const std::exception&) {
        SystemLog::write("Error: getTaskSizeFromServer");
    }
}

int64_t CBackupTask::loadFilePathListFromDB() {
    try {
        CManageTaskList taskList;
        std::string reply = taskList.getBackupTasks(name, "true");
        if (taskList.iResult != ResultCode::Success) {
            SystemLog::write("Error: get task list.");
            return taskList.iResult;
        }
        std::vector<std::string> paths = Functions::GetValueArrayByKey("RETURN_Path", reply);
        if (bMigrateTask) {
            std::vector<std::string> folders = Functions::GetValueArrayByKey("RETURN_IsFolder", reply);
            for (size_t i = 0; i < paths.size(); ++i) {
                sourceInfoArray.push_back(
                    {{"PathID", paths[i]}, {"TypeID", i < folders.size() ? folders[i] : ""}});
                localDirList.emplace_back(paths[i]);
            }
        } else {
            for (const auto& path : paths)
                localDirList.emplace_back(path);
        }
        return ResultCode::Success;
    } catch (const std::exception&) {
        SystemLog::write("Error: loadFilePathListFromDB");
        return ResultCode::Failure;
    }
}

} // namespace cirrovault

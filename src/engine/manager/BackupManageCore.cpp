#include <exception>

#include "engine/manager/CBackupManage.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/PasswordMan.h"
#include "platform/framework/PathTreeController.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/framework/UserSettingMan.h"
#include "platform/os/SystemLog.h"
#include "support/CFileInfo.h"
#include "support/GlobalFunction.h"

namespace cirrovault {

CBackupManage::CBackupManage() : pPasswordMan(std::make_unique<PasswordMan>()) {}

// The identity is not read here: logon reads it (initMyID).
CBackupManage::~CBackupManage() = default;

std::vector<CBackupManage::TaskPtr> CBackupManage::getTasksList() {
    std::lock_guard lock(managerLock);
    return taskList;
}

std::string CBackupManage::getCreateNewTaskName() const {
    return pNewTask ? pNewTask->name : std::string();
}

int32_t CBackupManage::GetType() const {
    return pNewTask ? pNewTask->GetType() : 0;
}

bool CBackupManage::ISFirtLogOn() {
    try {
        return !UserSettingMan::GetUserInfo().has_value();
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupManage::ISFirtLogOn()");
        return false;
    }
}

bool CBackupManage::JustLogon(bool flag) {
    try {
        return GlobalFunction::reLogon(flag);
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupManage::JustLogon()");
        return false;
    }
}

bool CBackupManage::InitLocalFolderlist(const std::vector<std::string>& paths) {
    if (pNewTask) {
        pNewTask->ClearSrcList();
        pNewTask->localDirList.assign(paths.begin(), paths.end());
    }
    return true;
}

bool CBackupManage::hasLocalFolderSel() const {
    return pNewTask && !pNewTask->localDirList.empty();
}

bool CBackupManage::SetServerFolder(const std::string& path) {
    if (pNewTask)
        pNewTask->serverPath = path;
    return true;
}

void CBackupManage::setTaskSvrDataFodler(const std::string& folder) {
    try {
        if (pNewTask)
            pNewTask->serverPath = CFileInfo::serverPathAppend(folder, pNewTask->name);
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupManage::setTaskSvrDataFodler()");
    }
}

void CBackupManage::SetEncryMode(bool bEncryMode) {
    if (pNewTask)
        pNewTask->bEncryMode = bEncryMode;
}

void CBackupManage::SendLogByEmail(const std::string& /*strLog*/, const std::string& /*errStr*/,
                                   int64_t /*iErr*/) {}

void CBackupManage::MySignup(const std::string& /*userName*/, const std::string& /*userPassword*/,
                             const std::string& /*emailAddress*/) {}

std::string CBackupManage::GetSvrDataFolder() {
    try {
        return GlobalFunction::getSvrAppFolder(LoadString::GetValueByKey("IDS_DATAPATH", ""),
                                               LoadString::GetValueByKey("IDS_DATAFLDDESC", ""));
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupManage::GetSvrDataFolder()");
        return "";
    }
}

bool CBackupManage::IsServiceMainDataFilePathExisting() {
    try {
        std::string folder = CFileInfo::MacPathAppend(
            CFileInfo::MacPathAppend(CFileInfo::getCurrentUserApplicationPath(),
                                     LoadString::GetValueByKey("CacheRootFolderName", "")),
            LoadString::GetValueByKey("GlobalDataFolderName", ""));
        return CFileInfo::isFile(CFileInfo::MacPathAppend(folder, "mainData.dat"));
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupManage::IsServiceMainDataFilePathExisting()");
        return false;
    }
}

void CBackupManage::CreateEncryDataFodler() {
    try {
        std::string folder = LoadString::GetValueByKey("EncryptionFolder", "");
        PathInfo info;
        if (!TransferApiUtil::sharePathTreeController().FindPath(folder, info, false)) {
            int64_t code = 0; // a failure shows up at the first encrypted upload
            GlobalFunction::CreateSrvFolder(folder, "", "", &code);
        }
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupManage::CreateEncryDataFodler()");
    }
}

void CBackupManage::SaveEncryKey(const std::string& passPhrase, const std::string& encryPath) {
    if (passPhrase.empty() || encryPath.empty())
        return;
    try {
        std::string keyPath =
            CFileInfo::serverPathAppend(encryPath, pNewTask ? pNewTask->name : std::string());
        pPasswordMan->SetPassword(keyPath, true, passPhrase);
        CreateEncryDataFodler();
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupManage::SaveEncryKey()");
    }
}

} // namespace cirrovault

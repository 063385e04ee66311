#include "support/GlobalFunction.h"

#include <exception>

#include "platform/framework/LoadString.h"
#include "platform/framework/PathTreeController.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/SystemLog.h"
#include "platform/os/UrlOpener.h"
#include "support/CFileInfo.h"

namespace cirrovault {

int64_t GlobalFunction::MySimpleLogon(const std::string& userName, const std::string& psw) {
    try {
        return TransferApiUtil::shareTransferApiUtil().Logon(userName, psw);
    } catch (const std::exception&) {
        SystemLog::write("Error: GlobalFunction::MySimpleLogon");
        return ResultCode::Failure;
    }
}

bool GlobalFunction::reLogon(bool /*flag*/) {
    try {
        TransferApiUtil& service = TransferApiUtil::shareTransferApiUtil();
        std::string user = service.userName();
        if (user.empty())
            return true; // never logged on: nothing to renew
        int64_t code = MySimpleLogon(user, service.passWord());
        if (code == ResultCode::Success)
            return true;
        // Only these mean the logon itself was refused; other codes leave the session
        // to the next call to sort out. A wrong password is a refusal too: treating it as
        // renewed would let a run go on without a session.
        return !(code == 2 || code == 3 || code == 6 || code == ResultCode::WrongPassword);
    } catch (const std::exception&) {
        SystemLog::write("Error: GlobalFunction::reLogon");
        return false;
    }
}

bool GlobalFunction::openURL() {
    try {
        TransferApiUtil& service = TransferApiUtil::shareTransferApiUtil();
        std::string host = service.GetHttpHost();
        if (host.empty()) {
            SystemLog::write("openURL: the service has no web pages");
            return true;
        }
        UrlOpener::open(host + "/secure/autologon.aspx?sesID=" + service.sessionID() +
                        "&gotoURL=/Secure/Subscribe.aspx");
    } catch (const std::exception&) {
        SystemLog::write("Error: GlobalFunction::openURL");
    }
    return true;
}

bool GlobalFunction::CreateSrvFolder(const std::string& path, const std::string& desc,
                                     const std::string& strCaption, int64_t* iRet) {
    int64_t code = ResultCode::Failure;
    try {
        TransferApiUtil& service = TransferApiUtil::shareTransferApiUtil();
        if (service.sessionID().empty())
            return false;
        PathInfo found;
        if (TransferApiUtil::sharePathTreeController().FindPath(path, found, false)) {
            if (iRet)
                *iRet = ResultCode::Success;
            return true;
        }
        std::string parent = CFileInfo::getServerParentFolder(path);
        if (!parent.empty() && !CreateSrvFolder(parent, "", "", iRet))
            return false;
        code = service.AddFolder(path, desc, strCaption, false);
        if (code == ResultCode::NotLoggedOn && reLogon(true))
            code = service.AddFolder(path, desc, strCaption, false);
    } catch (const std::exception&) {
        SystemLog::write("Error: GlobalFunction::CreateSrvFolder");
        code = 2;
        if (iRet)
            *iRet = code;
        return false;
    }
    if (iRet)
        *iRet = code;
    // Codes above 9 are the service's notices, not failures.
    return code == 0 || code > 9;
}

bool GlobalFunction::CreateSrvHistoryFolder(const std::string& path, const std::string& desc,
                                            const std::string& strCaption, int64_t* iRet) {
    return CreateSrvFolder(path, desc, strCaption, iRet);
}

std::string GlobalFunction::getSvrAppFolder(const std::string& name, const std::string& strDesc) {
    try {
        int64_t code = 0;
        std::string data = LoadString::GetValueByKey("ApplicationDataPath", "");
        // The data folder takes its caption text as description and its note as
        // caption, the other way round from the folders below it.
        if (!CreateSrvFolder(data, LoadString::GetValueByKey("IDS_STRORVODATACAP", ""),
                             LoadString::GetValueByKey("IDS_STRORVODATANOTE", ""), &code))
            return "";
        std::string tasks =
            CFileInfo::serverPathAppend(data, LoadString::GetValueByKey("ServerStoreTaskPath", ""));
        if (!CreateSrvFolder(tasks, LoadString::GetValueByKey("IDS_STRAPPFOLDERNOTE", ""),
                             LoadString::GetValueByKey("IDS_STRAPPFOLDERCAP", ""), &code))
            return "";
        std::string folder = CFileInfo::serverPathAppend(tasks, name);
        if (!CreateSrvFolder(folder, strDesc, name, &code))
            return "";
        return folder;
    } catch (const std::exception&) {
        SystemLog::write("Error: GlobalFunction::getSvrAppFolder");
        return "";
    }
}

} // namespace cirrovault

#include "service/CManageTaskList.h"

#include "platform/framework/Functions.h"
#include "platform/framework/NimboSetting.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/SystemLog.h"
#include "support/CFileInfo.h"

namespace cirrovault {

namespace {

constexpr const char* kRequestDateFormat = "yyyy-MM-dd HH:mm:ss";
// Paths per request when the setting "UploadLocalPathCount" has any text at all.
constexpr uint64_t kPathsPerRequest = 100;

std::string encoded(const std::string& text) {
    return TransferApiUtil::EncodeURL(text);
}

void appendPair(std::string& url, const std::string& key, const std::string& value) {
    url += key;
    url += encoded(value);
    url += '&';
}

void appendDate(std::string& url, const std::string& key, Date date) {
    appendPair(url, key, Functions::stringTransFromedDate(date, kRequestDateFormat));
}

// Each non-empty entry encoded and followed by "|"; the "|" itself travels plain.
void appendList(std::string& url, const std::string& key, const std::vector<std::string>& list) {
    url += key;
    for (const auto& entry : list)
        if (!entry.empty())
            url += encoded(entry) + "|";
    url += '&';
}

std::string valueOf(const std::map<std::string, std::string>& dictionary, const std::string& key) {
    auto found = dictionary.find(key);
    return found == dictionary.end() ? std::string() : found->second;
}

// IsFolder, Path, Serial and Action of one path, under the given index. A migrated
// source's dictionary carries its folder flag as the task list gave it.
void appendPathEntry(std::string& url, const TaskListPathItem& item, uint64_t index,
                     const std::string& action) {
    std::string number = std::to_string(index);
    std::string isFolder, path;
    if (const auto* dictionary = std::get_if<std::map<std::string, std::string>>(&item)) {
        isFolder = valueOf(*dictionary, "TypeID");
        path = valueOf(*dictionary, "PathID");
    } else {
        path = std::get<std::string>(item);
        isFolder = CFileInfo::isDirectory(path) ? "1" : "0";
    }
    url += "IsFolder" + number + "=" + isFolder + "&";
    appendPair(url, "Path" + number + "=", path);
    url += "Serial" + number + "=&";
    appendPair(url, "Action" + number + "=", action);
}

std::vector<TaskListPathItem> pathItems(const std::vector<std::string>& paths) {
    return {paths.begin(), paths.end()};
}

std::vector<TaskListPathItem>
pathItems(const std::vector<std::map<std::string, std::string>>& dictionaries) {
    return {dictionaries.begin(), dictionaries.end()};
}

// Splits like the platform's component split: "" gives one empty element.
std::vector<std::string> splitAtBar(const std::string& text) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        size_t end = text.find('|', start);
        parts.push_back(text.substr(start, end - start));
        if (end == std::string::npos)
            return parts;
        start = end + 1;
    }
}

} // namespace

void CManageTaskList::setRequestObserver(std::function<void(const std::string&)> observer) {
    requestObserver_ = std::move(observer);
}

int32_t CManageTaskList::send(const std::string& request) {
    if (requestObserver_)
        requestObserver_(request);
    return TransferApiUtil::shareTransferApiUtil().UploadTaskList(request);
}

int32_t CManageTaskList::addOrEditBackupTask(TaskListEntry& task, const std::string& taskAction,
                                             const std::string& fileAction,
                                             const std::string& oldTaskName,
                                             const std::string& upgraded) {
    (void)fileAction;
    try {
        nType = 0;
        std::string url;
        appendPair(url, "TaskID=", std::to_string(task.taskID));
        appendPair(url, "ComputerID=", std::to_string(task.pcID));
        appendPair(url, "TaskName=", task.name);
        appendPair(url, "Descr=", task.description);
        appendPair(url, "PcName=", task.mPCName);
        appendPair(url, "Type=", std::to_string(task.taskType));
        appendDate(url, "BackupDate=", task.mBackupDate);

        // A renamed task's folder keeps its parent and takes the new name.
        const std::string oldServerPath = task.serverPath;
        const bool renamed = task.name != oldTaskName;
        if (taskAction == "Edit" && renamed)
            task.serverPath = CFileInfo::serverPathAppend(
                CFileInfo::getServerParentFolder(task.serverPath), task.name);
        appendPair(url, "ServerPath=", task.serverPath);

        appendList(url, "FilterExts=", task.filterExt);
        appendList(url, "FilterPaths=", task.filtedPath);
        appendPair(url, "MaxVersion=", std::to_string(task.uiMaxVersion));
        appendDate(url, "NextDate=", task.mDating);
        appendDate(url, "BeginDate=", task.mBeginDate);
        appendDate(url, "EndDate=", task.mEndDate);
        appendDate(url, "ResumeDate=", task.mResumeDate);
        appendPair(url, "RemoteSize=", std::to_string(task.uiRemoteSize));
        url += std::string("IsResume=") + (task.bResume ? "1" : "0") + "&";
        appendPair(url, "Upgraded=", upgraded);
        appendPair(url, "OldTaskName=", taskAction == "Edit" ? oldTaskName : task.name);

        if (taskAction == "Add")
            return addOrEditLocalPath({}, pathItems(task.localDirList), url, taskAction, false);
        int32_t result;
        if (!task.bMigrateTask)
            result = addOrEditLocalPath(pathItems(task.deleteFileArray),
                                        pathItems(task.addFileArray), url, taskAction, false);
        else if (!task.bOnlyMigrateTaskOrignalPath)
            result = addOrEditLocalPath(pathItems(task.sourceInfoArray),
                                        pathItems(task.addFileArray), url, taskAction, true);
        else
            result = addOrEditLocalPath({}, {}, url, taskAction, true);

        if (renamed && result == ResultCode::Success) {
            // The folders follow the record only once the service has taken the new
            // name: a refused rename (the name is another task's) must not move this
            // task's data under that name. Their results do not decide the outcome (a
            // task without data yet has no folders to rename).
            auto& service = TransferApiUtil::shareTransferApiUtil();
            service.EditFolder(oldServerPath, task.name, "", "");
            std::string historyFolder =
                task.getSvrHistoryFolder
                    ? task.getSvrHistoryFolder(Functions::IsEncryptPath(task.serverPath))
                    : std::string();
            std::string oldHistory = CFileInfo::serverPathAppend(historyFolder, oldTaskName);
            if (!oldHistory.empty())
                service.EditFolder(oldHistory, task.name, "", "");
        }
        return result;
    } catch (const std::exception&) {
        SystemLog::write("Error:addOrEditBackupTask");
        return static_cast<int32_t>(ResultCode::Failure);
    }
}

int32_t CManageTaskList::addOrEditLocalPath(const std::vector<TaskListPathItem>& deleteFileArray,
                                            const std::vector<TaskListPathItem>& editFileArray,
                                            const std::string& strURL,
                                            const std::string& taskAction, bool bMigrateTask) {
    // Each entry says by its own form whether it is a migrated source's dictionary, so
    // the migrate flag needs no separate handling.
    (void)bMigrateTask;
    try {
        // Any text in the setting means batches of 100; no setting means its integer
        // value, 0, which sends every path in a request of its own. Kept this way on
        // purpose.
        std::string setting = NimboSetting::GetSettingValueForKey("UploadLocalPathCount", "");
        const uint64_t batchSize = setting.empty() ? 0 : kPathsPerRequest;

        const std::string laterHeader = strURL + "Action=" + encoded("Edit") + "&";
        std::string url = strURL + "Action=" + encoded(taskAction == "Add" ? "Add" : "Edit") + "&";
        uint64_t count = 0;

        auto sendWhenFull = [&](const char* failureLine) {
            if (count < batchSize)
                return;
            url += "localPathNum=" + encoded(std::to_string(count));
            int32_t result = send(url);
            if (result != ResultCode::Success)
                SystemLog::write(failureLine + std::to_string(result));
            url = laterHeader;
            count = 0;
        };

        for (const auto& item : deleteFileArray) {
            appendPathEntry(url, item, count++, "0");
            sendWhenFull("Error:Upload task info ret is ");
        }
        for (const auto& item : editFileArray) {
            appendPathEntry(url, item, count++, "1");
            sendWhenFull("Error:Edit task info ret is ");
        }

        url += "localPathNum=" + encoded(std::to_string(count));
        int32_t result = send(url);
        if (result != ResultCode::Success)
            SystemLog::write("Error:Edit task info ret is " + std::to_string(result));
        return result;
    } catch (const std::exception&) {
        SystemLog::write("Error:addOrEditLocalPath");
        return static_cast<int32_t>(ResultCode::Failure);
    }
}

std::string CManageTaskList::localFile(const std::vector<std::string>& fileArray,
                                       const std::string& fileAction, const std::string& strURL,
                                       uint64_t iCurrentLocalPathCount) {
    try {
        std::string url = strURL;
        uint64_t index = fileAction == "0" ? 0 : iCurrentLocalPathCount;
        for (const auto& path : fileArray)
            appendPathEntry(url, path, index++, fileAction);
        return url;
    } catch (const std::exception&) {
        SystemLog::write("Error:localFile");
        return strURL;
    }
}

std::string CManageTaskList::getBackupTasks(const std::string& taskName,
                                            const std::string& bGetLocalPath) {
    try {
        std::string reply;
        iResult =
            TransferApiUtil::shareTransferApiUtil().getTaskList(taskName, bGetLocalPath, reply);
        return iResult == ResultCode::Success ? reply : std::string();
    } catch (const std::exception&) {
        SystemLog::write("Error:getBackupTasks");
        iResult = static_cast<int32_t>(ResultCode::Failure);
        return "";
    }
}

int32_t CManageTaskList::getTaskNames(const std::string& flag) {
    try {
        nType = 3;
        std::string names;
        iResult = TransferApiUtil::shareTransferApiUtil().getTaskNames(flag, names);
        strTaskNames = names;
        taskNamesArray = splitAtBar(strTaskNames);
        return iResult;
    } catch (const std::exception&) {
        SystemLog::write("Error:getTaskNames");
        iResult = static_cast<int32_t>(ResultCode::Failure);
        return iResult;
    }
}

int32_t CManageTaskList::deleteTasks(const std::string& request) {
    try {
        return TransferApiUtil::shareTransferApiUtil().deleteTasks(request);
    } catch (const std::exception&) {
        SystemLog::write("Error:deleteTasks");
        return static_cast<int32_t>(ResultCode::Failure);
    }
}

std::string CManageTaskList::showManageTaskListResult(int32_t code, int32_t taskListType) const {
    try {
        if (taskListType == 0) {
            switch (code) {
            case 0:
                return " Add/Edit successfully.";
            case 1:
                return "Not logon.";
            case 2:
                return "Task name can’t be empty.";
            case 4:
                return "Failed to update, did not find old backup task.";
            case 5:
                return "Failed to update, DB error.";
            case 6:
                return "Already exists same backup task.";
            default:
                break;
            }
        } else if (taskListType == 1) {
            if (code == 0)
                return "Get Successfully.";
            if (code == 1)
                return "Not logon.";
        } else if (taskListType == 2) {
            if (code == 0)
                return "Delete Successfully.";
            if (code == 1)
                return "Not logon.";
            if (code == 2)
                return "Task name is required.";
        }
        return TransferApiUtil::stringWithReturnCode(code);
    } catch (const std::exception&) {
        SystemLog::write("Error:showManageTaskListResult");
        return "";
    }
}

} // namespace cirrovault

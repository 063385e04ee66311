// The task-list requests of the service session. The list lives in the store as one
// document per account; TaskListServer reads and answers the request texts against it.
#include "platform/os/ResultCodes.h"
#include "platform/framework/TaskListServer.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/SystemLog.h"

namespace cirrovault {

namespace {
// The session's backend as the service would see the caller: logged on or not.
TaskListServer serverFor(const TransferApiUtil& session) {
    return TaskListServer(session.backend(), !session.sessionID().empty());
}
} // namespace

int32_t TransferApiUtil::UploadTaskList(const std::string& request) {
    try {
        return serverFor(*this).UploadTaskList(request);
    } catch (const std::exception&) {
        SystemLog::write("Error: TransferApiUtil::UploadTaskList()");
        return static_cast<int32_t>(ResultCode::Failure);
    }
}

int32_t TransferApiUtil::getTaskList(const std::string& taskName, const std::string& bGetLocalPath,
                                     std::string& getTaskListInfo) {
    try {
        return serverFor(*this).getTaskList(taskName, bGetLocalPath, getTaskListInfo);
    } catch (const std::exception&) {
        SystemLog::write("Error: TransferApiUtil::getTaskList()");
        getTaskListInfo.clear();
        return static_cast<int32_t>(ResultCode::Failure);
    }
}

int32_t TransferApiUtil::getTaskNames(const std::string& flag, std::string& taskNames) {
    try {
        return serverFor(*this).getTaskNames(flag, taskNames);
    } catch (const std::exception&) {
        SystemLog::write("Error: TransferApiUtil::getTaskNames()");
        taskNames.clear();
        return static_cast<int32_t>(ResultCode::Failure);
    }
}

int32_t TransferApiUtil::deleteTasks(const std::string& request) {
    try {
        return serverFor(*this).deleteTasks(request);
    } catch (const std::exception&) {
        SystemLog::write("Error: TransferApiUtil::deleteTasks()");
        return static_cast<int32_t>(ResultCode::Failure);
    }
}

} // namespace cirrovault

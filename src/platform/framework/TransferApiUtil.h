#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/framework/AccountBalance.h"
#include "platform/framework/OperationProgress.h"
#include "platform/framework/PathInfo.h"
#include "platform/framework/TransferInfo.h"
#include "platform/framework/UploadFileInfo.h"

namespace cirrovault {

class PathTreeController;
class StoreBackend;

// The one session with the storage service: logon, account figures, path operations,
// transfers, the task list and report mail. It works through a StoreBackend chosen by
// the service URL ("file:///path" for the embedded local store, "webdav://..." or
// "webdavs://..."). All operations answer result codes (ResultCode.h) and are safe to
// call from several threads.
class TransferApiUtil {
public:
    static TransferApiUtil& shareTransferApiUtil();
    static PathTreeController& sharePathTreeController();
    // Drops the shared session (tests; the host at exit).
    static void releaseTransferApiUtil();

    // The service URL: the setting "ServiceURL", else the local store in the user's data
    // folder. Opening picks the backend; a URL it cannot serve gives NoService.
    static std::string defaultServiceURL();
    // Bytes per second uploads may use: the setting "LimitUpload" (KiB/s), 0 for no limit.
    static uint64_t uploadLimit();
    int64_t OpenService(const std::string& serviceURL);
    // Uses the given backend directly (tests and fault injection). A session already
    // open is kept, so a wrapper around the same store goes on with it.
    void SetBackend(std::shared_ptr<StoreBackend> backend);
    std::shared_ptr<StoreBackend> backend() const;
    // Makes what was stored since the last call durable on the store (the end of a
    // run); nothing to do when nothing was changed meanwhile.
    int64_t Flush();

    // Session
    int64_t Logon(const std::string& userName, const std::string& passWord);
    void Logoff();
    std::string sessionID() const;  // empty when not logged on
    std::string customerID() const; // empty when not logged on
    std::string userName() const;
    std::string passWord() const;   // kept in memory only, never logged
    bool CheckNetwork();
    std::string GetHttpHost() const; // the service's web address ("" for the local store)

    int64_t GetAccountBalance(AccountBalance& balance);

    // Paths (server paths, "\" separators)
    int64_t AddFolder(const std::string& path, const std::string& folderDescription,
                      const std::string& folderCaption, bool isNeedLimitSubItems);
    int64_t EditFolder(const std::string& path, const std::string& newFolderName,
                       const std::string& folderDescription, const std::string& folderCaption);
    int64_t EditFile(const std::string& path, const std::string& newFileName,
                     const std::string& fileDescription, const std::string& fileCaption);
    int64_t DeletePaths(const std::vector<std::string>& paths, OperationProgress* deleteProgressbar,
                        bool isMovetoTrashFolder);
    // Moves one item to a new path (another folder, another name or both) in one store
    // call, so that a session cut off at any point leaves it at one place or the other.
    int64_t MovePath(const std::string& path, const std::string& newPath);
    // Copies (or with isCut moves) each path into the destination folder.
    int64_t CopyPaths(const std::vector<std::string>& paths, const std::string& destinationFolder,
                      OperationProgress* copyProgressbar, bool isCut);

    // Transfers. Progress and cancel go through the TransferInfo's progress object and
    // CurlHandleController; files under the encryption folder are stored encrypted with
    // the TransferInfo's pass phrase.
    int64_t UploadFile(TransferInfo& transferInfo, UploadFileInfo& uploadInformation);
    int64_t DownloadFile(TransferInfo& transferInfo);

    // Task list: request and reply texts of the task-list protocol.
    int32_t UploadTaskList(const std::string& request);
    int32_t getTaskList(const std::string& taskName, const std::string& bGetLocalPath,
                        std::string& getTaskListInfo);
    int32_t getTaskNames(const std::string& flag, std::string& taskNames);
    int32_t deleteTasks(const std::string& request);

    // Report mail: by SMTP when the setting "SMTPURL" is set, else kept as an .eml file
    // in the account's outbox so that no report is lost.
    int64_t SendEmailToUser(const std::string& toAddress, const std::string& strSubject,
                            const std::string& strBody);

    static std::string EncodeURL(const std::string& text);
    static std::string stringWithReturnCode(int64_t code);

private:
    TransferApiUtil();
    // The backend, for a call that changes the store (remembered for Flush).
    std::shared_ptr<StoreBackend> changingBackend();
    struct State;
    std::shared_ptr<State> state_;
};

} // namespace cirrovault

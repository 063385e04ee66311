#include "QuickBackup.h"

#include <cmath>
#include <cstdio>
#include <vector>

#include "platform/framework/LoadString.h"
#include "platform/framework/PathInfo.h"
#include "platform/framework/PathTreeController.h"
#include "platform/framework/ResultCodes.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/framework/TrueProgressCallback.h"
#include "platform/os/FileSystem.h"
#include "platform/store/StoreBackend.h"
#include "support/CFileInfo.h"
#include "support/GlobalFunction.h"

namespace cirrovault {

namespace {

struct Walker {
    bool printEachFile;
    QuickBackupResult& result;
    TransferApiUtil& api = TransferApiUtil::shareTransferApiUtil();
    PathTreeController& tree = TransferApiUtil::sharePathTreeController();

    bool unchanged(const std::string& serverPath, const FileStatus& local) {
        PathInfo info;
        if (!tree.FindPath(serverPath, info, false) || info.bFolder)
            return false;
        // Whole seconds, truncated: every store keeps at least those.
        return info.iSize == local.size &&
               std::floor(info.modifyTime.timeIntervalSince1970()) ==
                   std::floor(local.modifyTime.timeIntervalSince1970());
    }

    void file(const std::string& localPath, const std::string& serverPath, const FileStatus& st) {
        if (unchanged(serverPath, st)) {
            ++result.filesUnchanged;
            return;
        }
        TrueProgressCallback progress;
        TransferInfo transfer;
        transfer.setLocFile(localPath);
        transfer.setSvrFile(serverPath);
        transfer.setProgress(&progress);
        UploadFileInfo info;
        int64_t code = api.UploadFile(transfer, info);
        if (code == ResultCode::Success || code == ResultCode::Done) {
            ++result.filesUploaded;
            result.bytesUploaded += st.size;
            if (printEachFile)
                std::printf("  uploaded  %s\n", localPath.c_str());
            return;
        }
        ++result.filesFailed;
        result.code = code;
        std::fprintf(stderr, "  failed    %s: %s\n", localPath.c_str(),
                     TransferApiUtil::stringWithReturnCode(code).c_str());
    }

    void folder(const std::string& localFolder, const std::string& serverFolder) {
        int64_t code = 0;
        if (!GlobalFunction::CreateSrvFolder(serverFolder, "", "", &code)) {
            std::fprintf(stderr, "  cannot create %s: %s\n", serverFolder.c_str(),
                         TransferApiUtil::stringWithReturnCode(code).c_str());
            result.code = code ? code : ResultCode::Failure;
            return;
        }
        auto names = FileSystem::listDirectory(localFolder);
        if (!names) {
            std::fprintf(stderr, "  cannot read %s\n", localFolder.c_str());
            return;
        }
        for (const std::string& name : *names) {
            // Hidden items stay out, and a backslash would split the name on the service.
            if (name[0] == '.' || name.find('\\') != std::string::npos)
                continue;
            std::string localPath = CFileInfo::MacPathAppend(localFolder, name);
            std::string serverPath = CFileInfo::serverPathAppend(serverFolder, name);
            auto st = FileSystem::linkStatus(localPath);
            if (!st)
                continue;
            if (st->type == FileType::Directory)
                folder(localPath, serverPath);
            else if (st->type == FileType::Regular)
                file(localPath, serverPath, *st);
        }
    }
};

} // namespace

QuickBackupResult QuickBackup::run(const std::string& localFolder, bool printEachFile) {
    QuickBackupResult result;
    std::string top = CFileInfo::getMacFileName(localFolder, false);
    std::string tasks = GlobalFunction::getSvrAppFolder(top, top);
    if (tasks.empty()) {
        result.code = ResultCode::Failure;
        return result;
    }
    result.serverFolder = tasks;
    Walker walker{printEachFile, result};
    walker.folder(localFolder, tasks);
    if (auto backend = TransferApiUtil::shareTransferApiUtil().backend())
        backend->flush();
    return result;
}

} // namespace cirrovault

#include <algorithm>
#include <exception>
#include <functional>
#include <optional>
#include <string>

#include "engine/task/CBackupTask.h"
#include "engine/task/ScanFileInfo.h"
#include "platform/framework/Functions.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/PathTreeController.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemItems.h"
#include "platform/os/SystemLog.h"
#include "platform/view/ViewBackend.h"
#include "support/CErrorLog.h"
#include "support/CFileInfo.h"

namespace cirrovault {

namespace {

constexpr int32_t kErrorEntry = 2;

enum class Step { Descend, SkipBelow, Stop };
using Visitor = std::function<Step(const std::string&, const std::optional<FileStatus>&)>;
// Told the subfolders of each folder as soon as it is read, before they are visited.
using FoldersAhead = std::function<void(const std::vector<std::string>&)>;
// Told each folder that is there but cannot be read.
using Unreadable = std::function<void(const std::string&)>;

// Pre-order walk: each folder's contents come right after the folder, as the
// one-entry memories of excluded folders expect. One status call per item; links are
// never followed. Answers false when the visitor stopped the walk.
bool walkTree(const std::string& folder, const Visitor& visit, const FoldersAhead& ahead = {},
              const Unreadable& unreadable = {}) {
    auto entries = FileSystem::listDirectoryWithStatus(folder);
    if (!entries) {
        // A vanished folder yields nothing; one still there was not read, and its files
        // are not backed up: that must not pass for a complete run.
        if (unreadable && FileSystem::linkStatus(folder))
            unreadable(folder);
        return true;
    }
    std::sort(entries->begin(), entries->end(),
              [](const FileSystem::Entry& a, const FileSystem::Entry& b) { return a.name < b.name; });
    if (ahead) {
        std::vector<std::string> folders;
        for (const auto& [name, status] : *entries) {
            if (status && status->type == FileType::Directory)
                folders.push_back(CFileInfo::MacPathAppend(folder, name));
        }
        if (!folders.empty())
            ahead(folders);
    }
    for (const auto& [name, status] : *entries) {
        std::string path = CFileInfo::MacPathAppend(folder, name);
        Step step = visit(path, status);
        if (step == Step::Stop)
            return false;
        if (step == Step::Descend && status && status->type == FileType::Directory &&
            !walkTree(path, visit, ahead, unreadable))
            return false;
    }
    return true;
}

// A plain text prefix test: an excluded "Trash" also covers a sibling "Trashes".
bool beginsWith(const std::string& path, const std::string& prefix) {
    return !prefix.empty() && path.starts_with(prefix);
}

std::string sourcePath(const SourceEntry& entry) {
    return entry.isRecord() ? entry.record().m_strPath : entry.path();
}

// Tells the delegate; a delegate that did not handle the event is only logged.
void sendScanNotice(CBackupTask& task, StowlineDelegateType type) {
    StowlineDelegate* receiver = task.GetDelegate();
    if (!receiver)
        return;
    if (!receiver->StowlineDelegateFun(task.weak_from_this().lock(), type))
        SystemLog::write("Error: runDelegateFun:(enum StowlineDelegateType)nType.");
}

} // namespace

bool CBackupTask::CalculateBackupSize() {
    try {
        bRescanForPrgBar = false;
        scanFilterSystemPath.clear();
        scanFilterUserPath.clear();
        leftOutPaths.clear();
        int32_t items = 0;
        int32_t taken = 0;
        SystemItems systemItems;
        systemItems.setSkipHidden((taskType & SkipHiddenFlag) != 0);

        auto cancelled = [this] {
            return pPrgBar && (pPrgBar->IsClickedCancel() || pPrgBar->IsCancelled());
        };
        // Every hundred items: a cancel test and a progress notice. False = cancelled.
        auto report = [&](const std::string& source) {
            if (items % 100 != 0)
                return true;
            if (cancelled())
                return false;
            bRescanForPrgBar = true;
            strRescanInfoForPrgbar = LoadString::Format("ReScanFile", source, items, taken);
            sendScanNotice(*this, refreshProgressBarDelegate);
            bRescanForPrgBar = false;
            return true;
        };
        auto takeFile = [&](const std::string& path, const FileStatus& status) {
            if (CalculateBackupFileSize(path, status.size, status.modifyTime))
                ++taken;
        };
        // The server folders of the local ones are listed ahead on another thread while
        // this one reads the local folders, so the two sides are read at once.
        PathTreeController& tree = TransferApiUtil::sharePathTreeController();
        auto listAhead = [&](const std::vector<std::string>& localFolders) {
            std::vector<std::string> serverFolders;
            for (const auto& folder : localFolders)
                serverFolders.push_back(
                    getTargetSvrFolder(CFileInfo::MacPathAppend(folder, "-"), true));
            tree.prefetchFolders(serverFolders);
        };

        // A source that is missing or cannot be read fails the run, named in the event
        // log, while the other sources are still backed up.
        auto unreadable = [this](const std::string& path) {
            std::string message = LoadString::Format("SourceUnreadable", path);
            SystemLog::write("Scan: " + message);
            strErrLog = message;
            bHaveErr = true;
            CErrorLog::recordError(name, taskID, message, kErrorEntry);
        };

        // Files are measured against the extension and name filters by
        // CalculateBackupFileSize; the walk itself filters folders only.
        for (const auto& entry : localDirList) {
            std::string source = sourcePath(entry);
            if (cancelled())
                return false;
            // What lies inside an excluded folder is no item of the walk.
            bool inExcluded = beginsWith(source, scanFilterUserPath);
            if (!inExcluded)
                ++items;
            std::optional<FileStatus> status = FileSystem::linkStatus(source);
            if (status && status->type == FileType::Regular) {
                if (!inExcluded)
                    takeFile(source, *status);
            } else if (status && status->type == FileType::Directory) {
                if (RegexFun(source, filtedPath, true) || leftOutByName(source)) {
                    scanFilterUserPath = source;
                    continue;
                }
                scanFileArray.push_back(source);
                listAhead({source});
            } else if (!status) {
                unreadable(source);
            }
            if (!inExcluded && !report(source))
                return false;
            if (!status || status->type != FileType::Directory)
                continue;

            bool finished = walkTree(source, [&](const std::string& path,
                                                  const std::optional<FileStatus>& item) {
                if (cancelled())
                    return Step::Stop;
                if (beginsWith(path, scanFilterSystemPath))
                    return Step::SkipBelow;
                // Sockets, FIFOs and devices: nothing a restore could make again. Not
                // remembered as a left-out prefix, which would cover their siblings.
                if (!item || item->type == FileType::Other)
                    return Step::SkipBelow; // or vanished since the folder was listed
                if (systemItems.isExcluded(path, item->mode)) {
                    scanFilterSystemPath = path;
                    return Step::SkipBelow;
                }
                if (!item)
                    return Step::SkipBelow; // vanished since the folder was listed
                bool inExcluded = beginsWith(path, scanFilterUserPath);
                if (!inExcluded)
                    ++items;
                Step step = Step::Descend;
                // A link is stored as a link, never followed.
                if (item->type == FileType::Regular || item->type == FileType::SymbolicLink) {
                    if (!inExcluded)
                        takeFile(path, *item);
                } else if (RegexFun(path, filtedPath, true) || leftOutByName(path)) {
                    scanFilterUserPath = path;
                    step = Step::SkipBelow; // everything below is excluded as well
                } else {
                    scanFileArray.push_back(path);
                }
                return inExcluded || report(source) ? step : Step::Stop;
            }, listAhead, unreadable);
            if (!finished)
                return false;
        }
        nScanTotalFiles = taken;
        bFinishScanForPrgBar = true;
        sendScanNotice(*this, refreshProgressBarDelegate);
        bFinishScanForPrgBar = false;
        return true;
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupTask::CalculateBackupSize()");
        return false;
    }
}

bool CBackupTask::leftOutByName(const std::string& path) {
    if (!RegexBackupPathForServer(path))
        return false;
    if (std::find(leftOutPaths.begin(), leftOutPaths.end(), path) == leftOutPaths.end()) {
        leftOutPaths.push_back(path);
        CErrorLog::recordError(name, taskID, LoadString::Format("NameTooLongLeftOut", path),
                               kErrorEntry);
    }
    return true;
}

bool CBackupTask::StartScanFile() {
    try {
        scanFileArray.clear();
        fileTotalSize = 0;
        bCancleScanFile = false;
        // Without a user interface there is no dialog, and the scan runs on its own.
        pLoopDlgController = CLoopItem::create();
        loopItem = pLoopDlgController.get();
        pThread = std::make_shared<Thread>([this] { scanFileProc(); });
        if (loopItem)
            loopItem->EnterLoopMode(pThread.get(), CLoopItem::ButtonScanFiles);
        else
            pThread->start();
        pThread->join(); // the thread may still be returning after it left the loop
        pThread.reset();
        if (bCancleScanFile) {
            scanFileArray.clear();
            return false;
        }
        return true;
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupTask::StartScanFile()");
        return false;
    }
}

void CBackupTask::scanFileProc() {
    Thread* self = pThread.get();
    try {
        if (loopItem)
            ViewBackend::pauseForFigures(3); // let a window come up first
        scanFilterSystemPath.clear();
        scanFilterUserPath.clear();
        int32_t files = 0;
        SystemItems systemItems;
        systemItems.setSkipHidden((taskType & SkipHiddenFlag) != 0);

        auto cancelled = [&] {
            return bCancleScanFile || (loopItem && loopItem->IsLoopCancel(self));
        };
        auto excludedFolder = [&](const std::string& path) {
            return RegexFun(path, filtedPath, true) || leftOutByName(path);
        };
        auto excludedFile = [&](const std::string& path) {
            return beginsWith(path, scanFilterUserPath) || RegexFun(path, filterExt, false) ||
                   leftOutByName(path);
        };
        auto addSize = [&](uint64_t size) {
            fileTotalSize += size;
            uiNeedSpace = fileTotalSize;
            ++files;
        };

        for (const auto& entry : localDirList) {
            std::string source = sourcePath(entry);
            std::optional<FileStatus> status = FileSystem::linkStatus(source);
            bool isFolder = status && status->type == FileType::Directory;
            if (isFolder) {
                if (excludedFolder(source)) {
                    scanFilterUserPath = source;
                    continue;
                }
                scanFileArray.push_back(source);
            }
            if (status && status->type == FileType::Regular) {
                if (!excludedFile(source)) {
                    scanFileArray.push_back(source);
                    addSize(status->size);
                }
                continue;
            }

            walkTree(source, [&](const std::string& path, const std::optional<FileStatus>& item) {
                if (cancelled()) {
                    bCancleScanFile = true;
                    return Step::Stop;
                }
                if (beginsWith(path, scanFilterSystemPath))
                    return Step::SkipBelow;
                if (!item || item->type == FileType::Other)
                    return Step::SkipBelow;
                if (systemItems.isExcluded(path, item->mode)) {
                    scanFilterSystemPath = path;
                    return Step::SkipBelow;
                }
                if (item->type == FileType::Directory) {
                    if (excludedFolder(path)) {
                        scanFilterUserPath = path;
                        return Step::SkipBelow;
                    }
                } else if (excludedFile(path)) {
                    return Step::SkipBelow;
                }
                scanFileArray.push_back(path);
                if (item->type == FileType::Regular || item->type == FileType::SymbolicLink)
                    addSize(item->size);
                if (loopItem) {
                    ScanFileInfo info = ScanFileInfo::initScanFileInfoWithString(
                        Functions::FormatSizeToString(fileTotalSize), std::to_string(files), path);
                    loopItem->SetScanFileLoopMessage(self, info.totalSourceSize,
                                                     info.totalSourceFilesCount, info.pathFolder);
                }
                return Step::Descend;
            });
            if (cancelled()) {
                bCancleScanFile = true;
                break;
            }
        }
        nScanTotalFiles = files;
    } catch (const std::exception&) {
        SystemLog::write("Error: CBackupTask::scanFileProc()");
    }
    if (loopItem)
        loopItem->LeaveLoopMode(self);
}

} // namespace cirrovault

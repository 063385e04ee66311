// Path operations of the service session. Each keeps the path-tree cache in step with
// what it changed on the service.
#include <exception>
#include <optional>

#include "platform/framework/LoadString.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/framework/TransferApiUtilState.h"
#include "platform/os/SystemLog.h"
#include "platform/store/StorePath.h"

namespace cirrovault {

namespace {

const std::string Root = "\\";

std::string parentOf(const std::string& canonical) {
    auto cut = canonical.find_last_of('\\');
    return cut == 0 ? Root : canonical.substr(0, cut);
}

std::string nameOf(const std::string& canonical) {
    return canonical.substr(canonical.find_last_of('\\') + 1);
}

// The canonical form of a path that names something below the root.
std::optional<std::string> itemPath(const std::string& path) {
    auto canonical = StorePath::normalize(path);
    if (!canonical || *canonical == Root)
        return std::nullopt;
    return canonical;
}

void logBadPath(const char* operation, const std::string& path) {
    SystemLog::write(std::string("Error: TransferApiUtil::") + operation +
                     "() refused the server path \"" + path + "\"");
}

// After a copy or move to `to`: the cache takes what the service now holds there.
void noteArrived(StoreBackend& store, CachedPathTree& tree, const std::string& to) {
    StoreItem item;
    if (store.stat(to, item) == ResultCode::Success)
        tree.noteStored(to, item);
    else
        tree.forget(to);
}

// Moves the item into the trash folder, made when missing.
int64_t moveToTrash(StoreBackend& store, CachedPathTree& tree, const std::string& canonical,
                    const std::string& trash) {
    int64_t code = store.makeFolder(trash, "", "");
    if (code == ResultCode::Success) {
        StoreItem folder;
        folder.isFolder = true;
        tree.noteStored(trash, folder);
    } else if (code != ResultCode::AlreadyExists) {
        return code;
    }
    // A name already in the trash gets " (2)", " (3)", ... before its extension.
    std::string name = nameOf(canonical);
    auto dot = name.find_last_of('.');
    std::string base = dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
    std::string ext = dot == std::string::npos || dot == 0 ? "" : name.substr(dot);
    for (int n = 1; n <= 1000; ++n) {
        std::string target = StorePath::child(
            trash, n == 1 ? name : base + " (" + std::to_string(n) + ")" + ext);
        code = store.move(canonical, target);
        if (code == ResultCode::AlreadyExists)
            continue;
        if (code == ResultCode::NotFound)
            return ResultCode::Success;
        if (code == ResultCode::Success) {
            tree.noteRemoved(canonical);
            noteArrived(store, tree, target);
        }
        return code;
    }
    return ResultCode::AlreadyExists;
}

} // namespace

int64_t TransferApiUtil::AddFolder(const std::string& path, const std::string& folderDescription,
                                   const std::string& folderCaption, bool isNeedLimitSubItems) {
    (void)isNeedLimitSubItems; // the stores set no per-folder item limit
    try {
        auto canonical = itemPath(path);
        if (!canonical) {
            logBadPath("AddFolder", path);
            return ResultCode::BadPath;
        }
        std::shared_ptr<StoreBackend> store = changingBackend();
        if (!store)
            return ResultCode::NoService;
        int64_t code = store->makeFolder(*canonical, folderDescription, folderCaption);
        if (code == ResultCode::Success) {
            noteArrived(*store, *state_->tree, *canonical);
            state_->tree->noteFolderMade(*canonical);
        }
        return code;
    } catch (const std::exception&) {
        SystemLog::write("Error: TransferApiUtil::AddFolder()");
        return ResultCode::Failure;
    }
}

// Renames in place; an empty new name or the same name keeps the name. Empty
// description and caption keep the folder's own.
int64_t TransferApiUtil::EditFolder(const std::string& path, const std::string& newFolderName,
                                    const std::string& folderDescription,
                                    const std::string& folderCaption) {
    try {
        auto canonical = itemPath(path);
        if (!canonical || (!newFolderName.empty() && !StorePath::isValidName(newFolderName))) {
            logBadPath("EditFolder", path + " -> " + newFolderName);
            return ResultCode::BadPath;
        }
        std::shared_ptr<StoreBackend> store = changingBackend();
        if (!store)
            return ResultCode::NoService;
        std::string target = *canonical;
        if (!newFolderName.empty() && newFolderName != nameOf(*canonical)) {
            target = StorePath::child(parentOf(*canonical), newFolderName);
            int64_t code = store->move(*canonical, target);
            if (code != ResultCode::Success)
                return code;
            state_->tree->noteRenamed(*canonical, newFolderName);
        }
        if (folderDescription.empty() && folderCaption.empty())
            return ResultCode::Success;
        StoreItem current;
        int64_t code = store->stat(target, current);
        if (code != ResultCode::Success)
            return code;
        std::string description = folderDescription.empty() ? current.description : folderDescription;
        std::string caption = folderCaption.empty() ? current.caption : folderCaption;
        code = store->setFolderInfo(target, description, caption);
        if (code == ResultCode::Success)
            state_->tree->noteFolderInfo(target, description, caption);
        return code;
    } catch (const std::exception&) {
        SystemLog::write("Error: TransferApiUtil::EditFolder()");
        return ResultCode::Failure;
    }
}

// Renames a file in its folder. Files carry no description or caption on the stores,
// so those two are not kept.
int64_t TransferApiUtil::EditFile(const std::string& path, const std::string& newFileName,
                                  const std::string& fileDescription,
                                  const std::string& fileCaption) {
    (void)fileDescription;
    (void)fileCaption;
    try {
        if (newFileName.empty())
            return ResultCode::EmptyName;
        auto canonical = itemPath(path);
        if (!canonical || !StorePath::isValidName(newFileName)) {
            logBadPath("EditFile", path + " -> " + newFileName);
            return ResultCode::BadPath;
        }
        if (newFileName == nameOf(*canonical))
            return ResultCode::Success;
        std::shared_ptr<StoreBackend> store = changingBackend();
        if (!store)
            return ResultCode::NoService;
        int64_t code = store->move(*canonical, StorePath::child(parentOf(*canonical), newFileName));
        if (code == ResultCode::Success)
            state_->tree->noteRenamed(*canonical, newFileName);
        return code;
    } catch (const std::exception&) {
        SystemLog::write("Error: TransferApiUtil::EditFile()");
        return ResultCode::Failure;
    }
}

int64_t TransferApiUtil::MovePath(const std::string& path, const std::string& newPath) {
    try {
        auto from = itemPath(path);
        auto to = itemPath(newPath);
        if (!from || !to) {
            logBadPath("MovePath", path + " -> " + newPath);
            return ResultCode::BadPath;
        }
        if (*from == *to)
            return ResultCode::Success;
        std::shared_ptr<StoreBackend> store = changingBackend();
        if (!store)
            return ResultCode::NoService;
        int64_t code = store->move(*from, *to);
        if (code == ResultCode::Success) {
            state_->tree->noteRemoved(*from);
            noteArrived(*store, *state_->tree, *to);
        }
        return code;
    } catch (const std::exception&) {
        SystemLog::write("Error: TransferApiUtil::MovePath()");
        return ResultCode::Failure;
    }
}

// Deletes each path; one that is already gone counts as deleted. All paths are tried;
// the answer is the first failure (Cancelled at once on a cancel).
int64_t TransferApiUtil::DeletePaths(const std::vector<std::string>& paths,
                                     OperationProgress* deleteProgressbar,
                                     bool isMovetoTrashFolder) {
    try {
        std::shared_ptr<StoreBackend> store = changingBackend();
        if (!store)
            return ResultCode::NoService;
        if (deleteProgressbar)
            deleteProgressbar->setTotalItems(static_cast<int64_t>(paths.size()));
        const std::string trash =
            StorePath::child(Root, LoadString::GetValueByKey("TrashFolder", "Trash"));
        int64_t result = ResultCode::Success;
        for (const std::string& path : paths) {
            if (deleteProgressbar && deleteProgressbar->IsCancelled())
                return ResultCode::Cancelled;
            int64_t code;
            auto canonical = itemPath(path);
            if (!canonical) {
                logBadPath("DeletePaths", path);
                code = ResultCode::BadPath;
            } else if (isMovetoTrashFolder && !StorePath::isSameOrInside(*canonical, trash)) {
                code = moveToTrash(*store, *state_->tree, *canonical, trash);
            } else {
                code = store->remove(*canonical);
                if (code == ResultCode::NotFound)
                    code = ResultCode::Success;
                if (code == ResultCode::Success)
                    state_->tree->noteRemoved(*canonical);
            }
            if (code != ResultCode::Success && result == ResultCode::Success)
                result = code;
            if (deleteProgressbar)
                deleteProgressbar->itemDone();
        }
        return result;
    } catch (const std::exception&) {
        SystemLog::write("Error: TransferApiUtil::DeletePaths()");
        return ResultCode::Failure;
    }
}

// Copies (isCut: moves) each path into the destination folder under its own name.
// All paths are tried; the answer is the first failure (Cancelled at once on a cancel).
int64_t TransferApiUtil::CopyPaths(const std::vector<std::string>& paths,
                                   const std::string& destinationFolder,
                                   OperationProgress* copyProgressbar, bool isCut) {
    try {
        auto destination = StorePath::normalize(destinationFolder);
        if (!destination) {
            logBadPath("CopyPaths", destinationFolder);
            return ResultCode::BadPath;
        }
        std::shared_ptr<StoreBackend> store = changingBackend();
        if (!store)
            return ResultCode::NoService;
        if (copyProgressbar)
            copyProgressbar->setTotalItems(static_cast<int64_t>(paths.size()));
        int64_t result = ResultCode::Success;
        for (const std::string& path : paths) {
            if (copyProgressbar && copyProgressbar->IsCancelled())
                return ResultCode::Cancelled;
            int64_t code;
            auto canonical = itemPath(path);
            if (!canonical) {
                logBadPath("CopyPaths", path);
                code = ResultCode::BadPath;
            } else if (std::string target = StorePath::child(*destination, nameOf(*canonical)); isCut) {
                code = MovePath(*canonical, target);
            } else {
                code = store->copy(*canonical, target);
                if (code == ResultCode::Success)
                    noteArrived(*store, *state_->tree, target);
            }
            if (code != ResultCode::Success && result == ResultCode::Success)
                result = code;
            if (copyProgressbar)
                copyProgressbar->itemDone();
        }
        return result;
    } catch (const std::exception&) {
        SystemLog::write("Error: TransferApiUtil::CopyPaths()");
        return ResultCode::Failure;
    }
}

} // namespace cirrovault

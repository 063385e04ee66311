#include "support/CFileAttributes.h"

#include <algorithm>
#include <exception>

#include "platform/os/SystemLog.h"

namespace cirrovault {

CFileAttributes::CFileAttributes(const std::string& path) : filePath(path) {}

std::string CFileAttributes::fileTypeText(FileType type) {
    switch (type) {
    case FileType::Regular: return "Regular";
    case FileType::Directory: return "Directory";
    case FileType::SymbolicLink: return "SymbolicLink";
    default: return "Other";
    }
}

bool CFileAttributes::getFileAttibutes() {
    try {
        auto status = filePath.empty() ? std::nullopt : FileSystem::linkStatus(filePath);
        if (!status)
            return false;
        fileType = fileTypeText(status->type);
        modifyDate = status->modifyTime;
        // Not every Linux file system keeps a birth time; the earlier of the change
        // and modification times is the nearest the item's status tells.
        createDate = std::min(status->changeTime, status->modifyTime);
        bFile = status->type == FileType::Regular;
        bFolder = status->type == FileType::Directory;
        fileSize = bFile ? static_cast<int64_t>(status->size) : 0;
        return true;
    } catch (const std::exception&) {
        SystemLog::write("Error: CFileAttributes::getFileAttibutes");
        return false;
    }
}

} // namespace cirrovault

#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/os/Date.h"
#include "platform/os/FileSystem.h"

namespace cirrovault {

// Dates, type and size of one local path, read on demand by getFileAttibutes.
class CFileAttributes {
public:
    explicit CFileAttributes(const std::string& path); // nothing read yet

    // Reads the item itself (a final symbolic link is not followed). When the item
    // cannot be read nothing changes and the answer is false.
    bool getFileAttibutes();

    // The text kept in fileType for a kind of item.
    static std::string fileTypeText(FileType type);

    std::string filePath;
    std::string fileType;               // "Regular", "Directory", "SymbolicLink", "Other"
    std::optional<Date> createDate;     // none until read
    std::optional<Date> modifyDate;     // none until read
    int64_t fileSize = 0;               // a regular file's size, else 0
    bool bFile = false;
    bool bFolder = false;
};

} // namespace cirrovault

#pragma once

#include <string>

namespace cirrovault {

// One progress message of the interactive scan, as the wait dialog shows it.
class ScanFileInfo {
public:
    std::string totalSourceSize;       // running total size, formatted for people
    std::string totalSourceFilesCount; // running file count
    std::string pathFolder;            // the path just visited

    static ScanFileInfo initScanFileInfoWithString(const std::string& strSize,
                                                   const std::string& strFileCount,
                                                   const std::string& strPath);
};

} // namespace cirrovault

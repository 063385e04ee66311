#include "engine/task/ScanFileInfo.h"

namespace cirrovault {

ScanFileInfo ScanFileInfo::initScanFileInfoWithString(const std::string& strSize,
                                                      const std::string& strFileCount,
                                                      const std::string& strPath) {
    ScanFileInfo info;
    info.totalSourceSize = strSize;
    info.totalSourceFilesCount = strFileCount;
    info.pathFolder = strPath;
    return info;
}

} // namespace cirrovault

#pragma once

#include <cstdint>
#include <string>

#include "platform/os/Date.h"

namespace cirrovault {

// What the service tells of one path.
struct PathInfo {
    std::string name;      // last component
    std::string path;      // full server path ("\A\b.txt")
    bool bFolder = false;
    uint64_t iSize = 0;    // bytes (a folder: all its files)
    int32_t iFiles = 0;    // a folder: files beneath it
    Date modifyTime;       // a file: the kept modification time of the local original
    std::string description;
    std::string caption;
};

} // namespace cirrovault

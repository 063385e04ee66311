#pragma once

#include <cstdint>
#include <string>

#include "platform/os/Date.h"

namespace cirrovault {

// What a restored file gets back beyond its bytes. A download writes the stored bytes
// with the stored permission bits and time; a symbolic link was stored as its target,
// and becomes the link again here, with the link's own time.
class RestoredItem {
public:
    // localPath was just downloaded from a copy kept with mode (0: none kept) and
    // modifyTime. Answers what could not be restored, "" when everything was.
    static std::string finish(const std::string& localPath, uint32_t mode, Date modifyTime);
};

} // namespace cirrovault

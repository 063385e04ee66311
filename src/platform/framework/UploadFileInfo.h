#pragma once

#include <cstdint>

namespace cirrovault {

// What the framework reports back about one finished upload.
struct UploadFileInfo {
    uint64_t uploadedBytes = 0; // bytes sent by this attempt
    uint64_t resumedBytes = 0;  // bytes kept from an interrupted attempt
    uint64_t storedSize = 0;    // size of the stored file (encrypted: 128 more)
};

} // namespace cirrovault

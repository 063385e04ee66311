#pragma once

#include <cstdint>
#include <string>

namespace cirrovault {

// What one quick backup did.
struct QuickBackupResult {
    int64_t code = 0;          // result code of the run (0 when every file is stored)
    int32_t filesUploaded = 0;
    int32_t filesUnchanged = 0;
    int32_t filesFailed = 0;
    uint64_t bytesUploaded = 0;
    std::string serverFolder;
};

// Backs a local folder up into the service: new and changed files are uploaded, files
// whose stored copy has the same size and modification time are skipped without
// reading them. The host's stand-in until tasks run through the backup engine.
class QuickBackup {
public:
    static QuickBackupResult run(const std::string& localFolder, bool printEachFile);
};

} // namespace cirrovault

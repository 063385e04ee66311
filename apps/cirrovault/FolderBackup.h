#pragma once

#include <cstdint>
#include <string>

namespace cirrovault {

// What one backup of a folder did.
struct FolderBackupResult {
    int32_t state = 0;      // the task's end state: 3 cancelled, 4 succeeded, 5 failed
    uint64_t code = 0;      // the run's result code
    int32_t filesToSend = 0; // new and changed files the scan found
    uint64_t bytesSent = 0;
    std::string serverFolder;
    std::string errorText;  // what went wrong, for the user
};

// Runs one backup task for a local folder now, on the engine's own worker thread, and
// waits for its end. The task is named after the folder.
class FolderBackup {
public:
    static FolderBackupResult run(const std::string& localFolder, bool printEachFile);
};

} // namespace cirrovault

#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace cirrovault {

// The per-account event log "errlog.log": a format mark line "4.500000", then one
// record per line, "name|id|escaped message|yyyy-MM-dd HH:mm:ss|kind label". The engine
// appends; the host reads, decodes and clears. Every operation is static; the shared
// instance only remembers the file last written in this process.
class CErrorLog {
public:
    static std::shared_ptr<CErrorLog> shareTaskErrorLog();
    // Drops the shared instance (and with it the remembered path).
    static void releaseErrorLogClass();

    // AppSupport/<CacheRootFolderName>/<IDS_STRPRODUCT>/<customer ID>, created with its
    // parents; empty when it cannot be made.
    static std::string createErrorLogFile();
    // That folder joined with "errlog.log"; nothing is created.
    static std::string GetEventLogFilePath();

    // Appends one record; nType 0 normal, 1 warning, 2 error, anything else unlabelled.
    // Safe from any number of threads: records never interleave.
    static bool recordError(const std::string& taskName, int32_t taskID,
                            const std::string& errDesc, int32_t nType);
    // The lines of the file last written in this process, split at every line feed
    // (so the mark comes first and an empty piece last). Empty before the first record
    // of the process or when the file is gone; nothing on a failure.
    static std::optional<std::vector<std::string>> GetErrorList();
    static bool clearAllEventLog();

    // "%" → "%25", then "|" → "%7c"; decoding undoes it in the opposite order and
    // leaves every other percent sequence alone.
    static std::optional<std::string> EncodeEventMsg(const std::optional<std::string>& msg);
    static std::optional<std::string> DecodeEventMsg(const std::optional<std::string>& msg);

    std::string strErrorFilePath() const;
    void setStrErrorFilePath(const std::string& path);

private:
    CErrorLog() = default;

    mutable std::mutex pathMutex_;
    std::string strErrorFilePath_; // guarded by pathMutex_
};

} // namespace cirrovault

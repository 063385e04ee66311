#pragma once

#include <cstdint>
#include <string>
#include <variant>

namespace cirrovault {

// One source of a task as the source-list editor records it.
class SourceInfo {
public:
    std::string m_strPath; // absolute local path of the file or folder
    uint64_t m_uLogSerial = 0;
    bool m_bFolder = false; // the path was an existing folder when added

    static SourceInfo InitSourceInfoWith(const std::string& path, uint64_t uLogSerial,
                                         bool bFolder);

    bool operator==(const SourceInfo&) const = default;
};

// One entry of a task's source list. Lists loaded from the service hold plain paths;
// AddSrcPath adds SourceInfo records. Readers that expect the other kind get an
// exception, which each list operation catches and logs, answering its neutral value.
class SourceEntry {
public:
    SourceEntry(std::string path) : value_(std::move(path)) {} // implicit: lists of paths
    SourceEntry(const char* path) : value_(std::string(path)) {}
    SourceEntry(SourceInfo record) : value_(std::move(record)) {}

    bool isRecord() const { return std::holds_alternative<SourceInfo>(value_); }
    // The entry as a plain path; throws std::logic_error for a record.
    const std::string& path() const;
    // The entry as a record; throws std::logic_error for a plain path.
    const SourceInfo& record() const;

    bool operator==(const SourceEntry&) const = default;

private:
    std::variant<std::string, SourceInfo> value_;
};

} // namespace cirrovault

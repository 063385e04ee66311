#include "engine/task/SourceInfo.h"

#include <stdexcept>

namespace cirrovault {

SourceInfo SourceInfo::InitSourceInfoWith(const std::string& path, uint64_t uLogSerial,
                                          bool bFolder) {
    SourceInfo info;
    info.m_strPath = path;
    info.m_uLogSerial = uLogSerial;
    info.m_bFolder = bFolder;
    return info;
}

const std::string& SourceEntry::path() const {
    if (const auto* text = std::get_if<std::string>(&value_))
        return *text;
    throw std::logic_error("source entry is a record, not a path");
}

const SourceInfo& SourceEntry::record() const {
    if (const auto* info = std::get_if<SourceInfo>(&value_))
        return *info;
    throw std::logic_error("source entry is a path, not a record");
}

} // namespace cirrovault

#include "support/FMLocFileManager.h"

#include <cmath>
#include <fmt/format.h>

#include "platform/os/UrlCoding.h"
#include "platform/os/Calendar.h"
#include "platform/os/FileSystem.h"
#include "platform/os/Guarded.h"
#include "platform/os/Host.h"
#include "platform/os/SystemLog.h"
#include "support/CFileAttributes.h"
#include "support/CFileInfo.h"

namespace cirrovault {

namespace {

// Copies a file or a whole folder; the copy keeps modification times.
bool copyTree(const std::string& from, const std::string& to) {
    auto status = FileSystem::status(from);
    if (!status || FileSystem::exists(to))
        return false;
    if (status->type == FileType::Directory) {
        auto entries = FileSystem::listDirectory(from);
        if (!entries || !FileSystem::createDirectories(to))
            return false;
        for (const std::string& entry : *entries)
            if (!copyTree(CFileInfo::MacPathAppend(from, entry), CFileInfo::MacPathAppend(to, entry)))
                return false;
    } else {
        auto data = FileSystem::readFile(from);
        if (!data || !FileSystem::writeFileAtomically(to, *data))
            return false;
    }
    FileSystem::setModifyTime(to, status->modifyTime);
    return true;
}

// The user's trash as the desktop keeps it: the item under files/, a note of where it
// came from under info/.
bool moveToTrash(const std::string& path) {
    std::string trash = CFileInfo::MacPathAppend(Host::applicationSupportFolder(), "Trash");
    std::string files = CFileInfo::MacPathAppend(trash, "files");
    std::string info = CFileInfo::MacPathAppend(trash, "info");
    if (!FileSystem::createDirectories(files) || !FileSystem::createDirectories(info))
        return false;
    std::string name = CFileInfo::getMacFileName(path, false);
    std::string trashName = name;
    for (int n = 2; FileSystem::exists(CFileInfo::MacPathAppend(files, trashName)) ||
                    FileSystem::exists(CFileInfo::MacPathAppend(info, trashName + ".trashinfo"));
         ++n)
        trashName = name + "." + std::to_string(n);
    // The original place, percent-encoded part by part with its "/" kept.
    std::string encoded;
    auto parts = GlobalFunction::arrayFromString(path, "/");
    for (const std::string& part : parts.value_or(std::vector<std::string>{}))
        if (!part.empty())
            encoded += "/" + UrlCoding::encode(part);
    DateComponents now = Calendar::components(Date::now());
    std::string note = "[Trash Info]\nPath=" + encoded + "\nDeletionDate=" +
                       fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", now.year, now.month, now.day,
                                   now.hour, now.minute, static_cast<int>(now.second)) +
                       "\n";
    std::string infoFile = CFileInfo::MacPathAppend(info, trashName + ".trashinfo");
    if (!FileSystem::writeFileAtomically(infoFile, note))
        return false;
    if (!FileSystem::moveItem(path, CFileInfo::MacPathAppend(files, trashName))) {
        FileSystem::removeItem(infoFile);
        return false;
    }
    return true;
}

} // namespace

FMLocFileManager::FMLocFileManager() = default;

std::string FMLocFileManager::formatDate(Date date) const {
    static const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    DateComponents c = Calendar::components(date);
    int hour12 = c.hour % 12 == 0 ? 12 : c.hour % 12;
    return fmt::format("{} {}, {}, {}:{:02} {}", months[c.month - 1], c.day, c.year, hour12, c.minute,
                       c.hour < 12 ? "AM" : "PM");
}

std::map<std::string, std::string> FMLocFileManager::GetFileAttribute(const std::string& path) const {
    using Record = std::map<std::string, std::string>;
    return guarded("Error: FMLocFileManager::GetFileAttribute", Record(), [&] {
        Record record;
        auto status = path.empty() ? std::nullopt : FileSystem::linkStatus(path);
        if (!status)
            return record;
        record["Name"] = CFileInfo::getMacFileName(path, false);
        record["DateModified"] = formatDate(status->modifyTime);
        record["Kind"] = CopyKindString(path);
        record["Path"] = path;
        record["Type"] = CFileAttributes::fileTypeText(status->type);
        record["Size"] = status->type == FileType::Directory ? "--" : FormatFileSize(GetFileSize(path));
        return record;
    });
}

std::optional<uint64_t> FMLocFileManager::GetFileSize(const std::string& path) {
    return guarded("Error: FMLocFileManager::GetFileSize", std::optional<uint64_t>(),
                   [&]() -> std::optional<uint64_t> {
                       auto status = path.empty() ? std::nullopt : FileSystem::status(path);
                       if (!status)
                           return std::nullopt;
                       // Only files have data; a folder's own size means nothing here.
                       return status->type == FileType::Regular ? status->size : 0;
                   });
}

std::string FMLocFileManager::FormatFileSize(std::optional<uint64_t> size) {
    return guarded("Error: FMLocFileManager::FormatFileSize", std::string(), [&] {
        if (!size || *size == 0)
            return std::string();
        double value = static_cast<double>(*size);
        if (value < 1024)
            return fmt::format("{:.0f} bytes", value);
        value *= 0.0009765625;
        if (value < 1024)
            return fmt::format("{:.0f} KB", value);
        value *= 0.0009765625;
        if (value < 1024)
            return fmt::format("{:.1f} MB", value);
        value *= 0.0009765625;
        return fmt::format("{:.2f} GB", value);
    });
}

std::string FMLocFileManager::CopyKindString(const std::string& path) {
    return guarded("Error: FMLocFileManager::CopyKindString", std::string(), [&] {
        auto status = path.empty() ? std::nullopt : FileSystem::linkStatus(path);
        if (!status)
            return std::string();
        switch (status->type) {
        case FileType::Directory: return std::string("Folder");
        case FileType::SymbolicLink: return std::string("Alias");
        case FileType::Regular:
            return std::string((status->mode & 0111) != 0 ? "Application" : "Document");
        default: return std::string("Item");
        }
    });
}

std::string FMLocFileManager::CopyDispalyName(const std::string& path) {
    return guarded("Error: FMLocFileManager::CopyDispalyName", std::string(), [&] {
        if (path.empty() || !FileSystem::exists(path))
            return std::string();
        return CFileInfo::getMacFileName(path, false);
    });
}

std::optional<std::vector<std::string>> FMLocFileManager::GetCurSubPathURLArray(const std::string& folder) {
    return GlobalFunction::getSubPath(folder);
}

uint32_t FMLocFileManager::GetCurSubItemCount(const std::string& folder) {
    auto entries = GetCurSubPathURLArray(folder);
    return entries ? static_cast<uint32_t>(entries->size()) : 0;
}

ItemInfoRecord FMLocFileManager::GetItemInfo(uint32_t requestFlags, const std::string& forPath) {
    return GlobalFunction::getItemInfo(requestFlags, forPath);
}

bool FMLocFileManager::IsInvisible(const std::string& path) {
    // Asked and not consulted, as always: hiding is ShouldDisplay's job.
    GetItemInfo(8, path);
    return true;
}

bool FMLocFileManager::ShouldDisplay(const std::string& path) {
    if (!IsInvisible(path))
        return false;
    std::string name = CFileInfo::getMacFileName(path, false);
    return name.empty() || name.front() != '.';
}

bool FMLocFileManager::doFileOperation(const std::string& path, const std::string& operationType,
                                       const std::string& destination) {
    return guarded("Error: FMLocFileManager::doFileOperation", false, [&] {
        if (path.empty() || !FileSystem::exists(path))
            return false;
        if (operationType == "destroy")
            return FileSystem::removeAll(path);
        if (operationType == "recycle")
            return path.front() == '/' && moveToTrash(path);
        if (operationType == "copy" || operationType == "move") {
            if (destination.empty() || !FileSystem::isDirectoryFollowingLinks(destination))
                return false;
            std::string target = CFileInfo::MacPathAppend(destination, CFileInfo::getMacFileName(path, false));
            return operationType == "move" ? FileSystem::moveItem(path, target) : copyTree(path, target);
        }
        SystemLog::write("FMLocFileManager: unknown file operation " + operationType);
        return false;
    });
}

} // namespace cirrovault

#include "support/CFileInfo.h"

#include <algorithm>

#include "platform/framework/LoadString.h"
#include "platform/os/FileSystem.h"
#include "platform/os/Guarded.h"
#include "platform/os/Host.h"
#include "platform/os/SystemLog.h"

namespace cirrovault {

namespace {

bool isDriveRoot(const std::string& path) {
    return path.size() == 3 && path.find(":\\") != std::string::npos;
}

// "/a/b/" and "/a/b" name the same item; the root stays "/".
std::string withoutTrailingSlashes(const std::string& path) {
    std::string result = path;
    while (result.size() > 1 && result.back() == '/')
        result.pop_back();
    return result;
}

// Offset of the extension's dot in the last component, or npos. A name that begins
// with a dot (".profile") has no extension.
size_t extensionDot(const std::string& path, const std::string& separators) {
    size_t nameStart = path.find_last_of(separators);
    nameStart = nameStart == std::string::npos ? 0 : nameStart + 1;
    size_t dot = path.rfind('.');
    if (dot == std::string::npos || dot <= nameStart || dot + 1 > path.size())
        return std::string::npos;
    return dot;
}

std::string replaceAll(std::string text, char from, char to) {
    std::replace(text.begin(), text.end(), from, to);
    return text;
}

} // namespace

std::string CFileInfo::convertServerPathToMacPath(const std::string& path) {
    return replaceAll(path, '\\', '/');
}

std::string CFileInfo::convertMacPathToServerPath(const std::string& path) {
    return replaceAll(path, '/', '\\');
}

std::string CFileInfo::serverPathAppend(const std::string& first, const std::string& secondPath) {
    return guarded("Error: CFileInfo::serverPathAppend", std::string(), [&] {
        if (first.empty() || secondPath.empty())
            return std::string();
        std::string result = first;
        if (result.back() != '\\')
            result += '\\';
        return result + secondPath;
    });
}

std::string CFileInfo::getServerParentFolder(const std::string& path) {
    size_t last = path.rfind('\\');
    if (path.empty() || last == std::string::npos)
        return "";
    return path.substr(0, last);
}

std::string CFileInfo::GetServerFileName(const std::string& path) {
    if (path.empty() || isDriveRoot(path))
        return "";
    // Without any "\" the whole text is the name.
    size_t last = path.rfind('\\');
    return last == std::string::npos ? path : path.substr(last + 1);
}

std::string CFileInfo::GetWINLocalParentPath(const std::string& path) {
    if (path.empty() || isDriveRoot(path))
        return "";
    return getServerParentFolder(path);
}

std::string CFileInfo::getServerSubFolder(const std::string& path, const std::string& interceptPath) {
    if (path.empty())
        return "";
    size_t start = interceptPath.size() + 1;
    return start >= path.size() ? std::string() : path.substr(start);
}

std::string CFileInfo::removeServerPathBackslash(const std::string& path) {
    if (path.size() <= 1 || path.back() != '\\')
        return path;
    return path.substr(0, path.size() - 1);
}

bool CFileInfo::compareServerPathExtension(const std::string& path, const std::string& pathExtension) {
    if (path.empty() || pathExtension.empty())
        return false;
    size_t dot = extensionDot(path, "\\/");
    if (dot == std::string::npos)
        return false;
    return path.compare(dot + 1, std::string::npos, pathExtension) == 0;
}

std::string CFileInfo::MacPathAppend(const std::string& first, const std::string& secondPath) {
    return guarded("Error: CFileInfo::MacPathAppend", std::string(), [&] {
        if (first.empty())
            return secondPath;
        std::string head = withoutTrailingSlashes(first);
        if (head != "/")
            head += '/';
        size_t skip = secondPath.find_first_not_of('/');
        if (skip == std::string::npos)
            return head; // an empty second part leaves the trailing slash
        return head + secondPath.substr(skip);
    });
}

std::string CFileInfo::getMacParentFolder(const std::string& path) {
    size_t last = path.rfind('/');
    if (path.empty() || last == std::string::npos)
        return "";
    if (last == 0)
        return "/";
    return path.substr(0, last);
}

std::string CFileInfo::getMacSubFolder(const std::string& path, const std::string& interceptPath) {
    if (path.empty())
        return "";
    size_t start = interceptPath == "/" ? 1 : interceptPath.size() + 1;
    return start >= path.size() ? std::string() : path.substr(start);
}

std::string CFileInfo::getMacFileName(const std::string& path, bool bDeletingPathExtension) {
    return guarded("Error: CFileInfo::getMacFileName", std::string(), [&] {
        std::string trimmed = withoutTrailingSlashes(path);
        if (trimmed == "/")
            return trimmed;
        size_t last = trimmed.rfind('/');
        std::string name = last == std::string::npos ? trimmed : trimmed.substr(last + 1);
        if (bDeletingPathExtension) {
            size_t dot = extensionDot(name, "/");
            if (dot != std::string::npos)
                name.erase(dot);
        }
        return name;
    });
}

std::optional<std::string> CFileInfo::removeFirstBackslash(const std::string& path) {
    if (path.empty())
        return std::nullopt;
    if (path.size() > 1 && path.front() == '/')
        return path.substr(1);
    return path;
}

std::optional<std::string> CFileInfo::removeBackslash(const std::string& path) {
    if (path.empty())
        return std::nullopt;
    std::string trimmed = withoutTrailingSlashes(path);
    size_t dot = extensionDot(trimmed, "/");
    if (dot != std::string::npos)
        trimmed.erase(dot);
    return trimmed;
}

std::string CFileInfo::pathTrim(const std::string& text) {
    size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string::npos)
        return "";
    size_t end = text.find_last_not_of(" \t");
    return text.substr(begin, end - begin + 1);
}

std::string CFileInfo::getCurrentUserApplicationPath() {
    return guarded("Error: CFileInfo::getCurrentUserApplicationPath", std::string(),
                   [] { return Host::applicationSupportFolder(); });
}

std::string CFileInfo::getProductFolderPath() {
    return guarded("Error: CFileInfo::getProductFolderPath", std::string(), [] {
        std::string root = MacPathAppend(getCurrentUserApplicationPath(),
                                         LoadString::GetValueByKey("CacheRootFolderName", "Cirrovault"));
        return MacPathAppend(root,
                             LoadString::GetValueByKey("ProductName", "Cirrovault Online Backup"));
    });
}

std::string CFileInfo::getDataFolderPath() {
    return guarded("Error: CFileInfo::getDataFolderPath", std::string(), [] {
        std::string root = MacPathAppend(getCurrentUserApplicationPath(),
                                         LoadString::GetValueByKey("CacheRootFolderName", "Cirrovault"));
        // The product key is empty unless the string table names one: then the data
        // folder is the cache root itself.
        std::string product = LoadString::GetValueByKey("IDS_STRPRODUCT", "");
        return product.empty() ? root : MacPathAppend(root, product);
    });
}

std::string CFileInfo::getTempPath(const std::string& serverPath, bool /*bCreate*/) {
    return guarded("Error: CFileInfo::getTempPath", std::string(), [&] {
        std::string temp = MacPathAppend(getProductFolderPath(), "Temp");
        if (!FileSystem::isDirectory(temp) && !FileSystem::createDirectories(temp))
            return std::string();
        return MacPathAppend(temp, convertServerPathToMacPath(serverPath));
    });
}

bool CFileInfo::CreateInAppDatePath(const std::string& path) {
    return guarded("Error: CFileInfo::CreateInAppDatePath", false, [&] {
        std::string data = getDataFolderPath();
        if (!CreateSubDir(data))
            return false;
        if (path.empty())
            return true;
        std::string full = MacPathAppend(data, path);
        return isDirectory(full) || CreateSubDir(full);
    });
}

bool CFileInfo::isFile(const std::string& path) {
    return guarded("Error: CFileInfo::isFile", false, [&] {
        auto status = path.empty() ? std::nullopt : FileSystem::linkStatus(path);
        return status && status->type == FileType::Regular;
    });
}

bool CFileInfo::isDirectory(const std::string& path) {
    return guarded("Error: CFileInfo::isDirectory", false, [&] {
        auto status = path.empty() ? std::nullopt : FileSystem::linkStatus(path);
        return status && status->type == FileType::Directory;
    });
}

bool CFileInfo::IsfileExistsAtPath(const std::string& path, bool /*bFolder*/) {
    return guarded("Error: CFileInfo::IsfileExistsAtPath", false,
                   [&] { return !path.empty() && FileSystem::exists(path); });
}

bool CFileInfo::CreateSubDir(const std::string& path) {
    return guarded("Error: CFileInfo::CreateSubDir", false, [&] {
        if (path.empty())
            return false;
        if (isDirectory(path))
            return true;
        FileSystem::createDirectories(path);
        return isDirectory(path);
    });
}

bool CFileInfo::CreateFile(const std::string& path) {
    return guarded("Error: CFileInfo::CreateFile", false, [&] {
        if (path.empty())
            return false;
        return isFile(path) || FileSystem::createEmptyFile(path);
    });
}

bool CFileInfo::renameFile(const std::string& from, const std::string& toPath) {
    return guarded("Error: CFileInfo::renameFile", false, [&] {
        if (from.empty() || toPath.empty())
            return false;
        return FileSystem::moveItem(from, toPath);
    });
}

bool CFileInfo::deleteFile(const std::string& path) {
    return guarded("Error: CFileInfo::deleteFile", false, [&] {
        if (path.empty() || !FileSystem::exists(path)) {
            SystemLog::write("Error:File not exists");
            return false;
        }
        // A folder goes with everything in it, as the file manager's removal does.
        if (!FileSystem::removeAll(path)) {
            SystemLog::write("Error: failed to delete file");
            return false;
        }
        return true;
    });
}

uint64_t CFileInfo::sizeOfFile(const std::string& path) {
    return guarded("Error: CFileInfo::sizeOfFile", uint64_t{0}, [&] {
        auto status = path.empty() ? std::nullopt : FileSystem::linkStatus(path);
        return status ? status->size : uint64_t{0};
    });
}

bool CFileInfo::isAliasFile(const std::string& /*path*/) {
    // Linux has no alias files; symbolic links are handled as links elsewhere.
    return false;
}

} // namespace cirrovault

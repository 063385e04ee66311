#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace cirrovault {

// Path arithmetic for the three spellings the engine meets (local "/" paths, server
// "\" paths and Windows task paths), the application's data folders on this computer,
// and small local file operations. Stateless: every operation is static.
class CFileInfo {
public:
    // Server and Windows paths
    static std::string convertServerPathToMacPath(const std::string& path);
    static std::string convertMacPathToServerPath(const std::string& path);
    // A second part beginning with "\" gives a doubled separator on purpose.
    static std::string serverPathAppend(const std::string& first, const std::string& secondPath);
    static std::string getServerParentFolder(const std::string& path);
    static std::string GetServerFileName(const std::string& path);
    static std::string GetWINLocalParentPath(const std::string& path);
    // Does not check that path begins with interceptPath.
    static std::string getServerSubFolder(const std::string& path, const std::string& interceptPath);
    static std::string removeServerPathBackslash(const std::string& path);
    static bool compareServerPathExtension(const std::string& path, const std::string& pathExtension);

    // Local paths
    static std::string MacPathAppend(const std::string& first, const std::string& secondPath);
    static std::string getMacParentFolder(const std::string& path);
    static std::string getMacSubFolder(const std::string& path, const std::string& interceptPath);
    static std::string getMacFileName(const std::string& path, bool bDeletingPathExtension);
    // Removes a leading "/" (the name is historical); empty → none.
    static std::optional<std::string> removeFirstBackslash(const std::string& path);
    // Removes the extension, not a separator (the name is historical); empty → none.
    static std::optional<std::string> removeBackslash(const std::string& path);
    static std::string pathTrim(const std::string& text); // spaces and tabs, both ends

    // Application folders
    static std::string getCurrentUserApplicationPath();
    // AppSupport/<CacheRootFolderName>/<ProductName>: per-machine data.
    static std::string getProductFolderPath();
    // AppSupport/<CacheRootFolderName>/<IDS_STRPRODUCT>: the event log's tree.
    static std::string getDataFolderPath();
    // Makes the temp folder and answers it joined with the server path; bCreate is not used.
    static std::string getTempPath(const std::string& serverPath, bool bCreate);
    static bool CreateInAppDatePath(const std::string& path);

    // Local file operations (a final symbolic link is never followed)
    static bool isFile(const std::string& path);
    static bool isDirectory(const std::string& path);
    // bFolder does not narrow the answer: anything at the path counts.
    static bool IsfileExistsAtPath(const std::string& path, bool bFolder);
    static bool CreateSubDir(const std::string& path);
    static bool CreateFile(const std::string& path);
    static bool renameFile(const std::string& from, const std::string& toPath);
    static bool deleteFile(const std::string& path);
    static uint64_t sizeOfFile(const std::string& path);
    static bool isAliasFile(const std::string& path);
};

} // namespace cirrovault

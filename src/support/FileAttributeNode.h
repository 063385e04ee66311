#pragma once

#include <string>

namespace cirrovault {

// One row of the local file browser.
class FileAttributeNode {
public:
    FileAttributeNode() = default;
    FileAttributeNode(const std::string& name, const std::string& fileDate,
                      const std::string& fileSize, const std::string& fileKind,
                      const std::string& parentPath, const std::string& fullPath,
                      const std::string& linkPath);

    std::string name;
    std::string dateModified;
    std::string size;            // "--" for folders
    std::string kind;
    std::string fileParentPath;
    std::string filePath;
    std::string ymbolicLinkPath; // a symbolic link's target (the name is historical)
    bool bSelect = false;
};

} // namespace cirrovault

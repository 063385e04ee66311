#include "support/FileAttributeNode.h"

namespace cirrovault {

FileAttributeNode::FileAttributeNode(const std::string& name, const std::string& fileDate,
                                     const std::string& fileSize, const std::string& fileKind,
                                     const std::string& parentPath, const std::string& fullPath,
                                     const std::string& linkPath)
    : name(name), dateModified(fileDate), size(fileSize), kind(fileKind),
      fileParentPath(parentPath), filePath(fullPath), ymbolicLinkPath(linkPath) {}

} // namespace cirrovault

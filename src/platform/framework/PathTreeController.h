#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/framework/PathInfo.h"

namespace cirrovault {

class CLoopItem;

// A cache of the service's folder tree: one listing per folder, then lookups of any
// path beneath it come from memory. Operations that change the service through
// TransferApiUtil keep the cache in step. Safe to use from several threads.
class PathTreeController {
public:
    virtual ~PathTreeController() = default;
    // Looks a path up; false when it does not exist (or cannot be listed).
    virtual bool FindPath(const std::string& path, PathInfo& outPathInfo, bool isShowProgress) = 0;
    // Forgets what is cached for the path and below; 0 when the path can be read again.
    virtual int64_t RefreshSvrPath(const std::string& path) = 0;
    // The folder's entries (with isRecursion, everything beneath it, parents first).
    virtual int64_t GetSubList(const std::string& path, std::vector<PathInfo>& outArray,
                               bool isShowProgress, bool isRecursion) = 0;
    // The wait dialog that the framework's own long calls may show (not owned).
    virtual void setLoopDelegate(CLoopItem* loopItem) = 0;
    // These folders will soon be looked into, in this order and before any named
    // earlier: they may be listed ahead. A hint only.
    virtual void prefetchFolders(const std::vector<std::string>& /*paths*/) {}
};

} // namespace cirrovault

#pragma once

#include <sys/stat.h>

#include <string>
#include <vector>

#include "platform/os/FileSystem.h"

namespace cirrovault::test {

// Sets the process umask for the life of the object.
class UmaskScope {
public:
    explicit UmaskScope(mode_t mask) : old_(::umask(mask)) {}
    ~UmaskScope() { ::umask(old_); }
    UmaskScope(const UmaskScope&) = delete;
    UmaskScope& operator=(const UmaskScope&) = delete;

private:
    mode_t old_;
};

inline uint32_t permissionsOf(const std::string& path) {
    auto status = FileSystem::linkStatus(path);
    return status ? (status->mode & 07777) : 0xFFFF;
}

// Every item under folder (the folder included) whose permissions let anyone but the
// owner in, as "path mode"; links are not followed.
inline std::vector<std::string> openToOthers(const std::string& folder) {
    std::vector<std::string> open;
    if ((permissionsOf(folder) & 077) != 0)
        open.push_back(folder + " " + std::to_string(permissionsOf(folder)));
    for (const auto& entry : FileSystem::listDirectoryWithStatus(folder).value_or(
             std::vector<FileSystem::Entry>{})) {
        std::string path = folder + "/" + entry.name;
        if (entry.status && entry.status->type == FileType::Directory) {
            auto inner = openToOthers(path);
            open.insert(open.end(), inner.begin(), inner.end());
        } else if (entry.status && entry.status->type == FileType::Regular &&
                   (entry.status->mode & 077) != 0) {
            open.push_back(path + " " + std::to_string(entry.status->mode & 07777));
        }
    }
    return open;
}

} // namespace cirrovault::test

#include "platform/os/SystemItems.h"

#include <algorithm>
#include <exception>
#include <sstream>

#include <sys/stat.h>

#include "platform/os/FileSystem.h"
#include "platform/os/Host.h"
#include "platform/os/SystemLog.h"

namespace cirrovault {

namespace {

constexpr const char* kVolumeRoots[] = {"/media", "/run/media", "/mnt"};
constexpr const char* kSystemFolders[] = {"/dev",  "/proc",    "/sys",        "/run",
                                          "/tmp",  "/var/tmp", "/lost+found", "/var/run"};

// path is folder or lies below it.
bool isWithin(const std::string& path, const std::string& folder) {
    if (folder == "/")
        return !path.empty() && path[0] == '/';
    return path == folder || (path.size() > folder.size() && path.starts_with(folder) &&
                              path[folder.size()] == '/');
}

std::string lastComponent(const std::string& path) {
    std::string trimmed = path;
    while (trimmed.size() > 1 && trimmed.back() == '/')
        trimmed.pop_back();
    auto slash = trimmed.find_last_of('/');
    return slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
}

// The kernel writes space, tab, newline and backslash in mount points as "\ooo".
std::string decodeOctalEscapes(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size() &&
            std::all_of(text.begin() + i + 1, text.begin() + i + 4,
                        [](char c) { return c >= '0' && c <= '7'; })) {
            out += static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 +
                                     (text[i + 3] - '0'));
            i += 3;
        } else {
            out += text[i];
        }
    }
    return out;
}

} // namespace

SystemItems::SystemItems() {
    try {
        userFolders_ = userDisposableFolders();
        if (auto text = FileSystem::readFile("/proc/self/mountinfo"))
            mountPoints_ = parseMountInfo(*text);
        else
            SystemLog::write("Error: SystemItems cannot read the mount table");
    } catch (const std::exception&) {
        SystemLog::write("Error: SystemItems cannot read the mount table");
    }
}

SystemItems::SystemItems(std::vector<std::string> mountPoints,
                         std::vector<std::string> userFolders)
    : mountPoints_(std::move(mountPoints)), userFolders_(std::move(userFolders)) {}

std::vector<std::string> SystemItems::userDisposableFolders() {
    return {Host::cacheFolder(),
            Host::applicationSupportFolder() + "/Trash",
            Host::homeFolder() + "/.thumbnails",
            Host::applicationSupportFolder() + "/cirrovault",
            Host::configFolder() + "/cirrovault"};
}

std::vector<std::string> SystemItems::describeLeftOut() {
    std::vector<std::string> lines = userDisposableFolders();
    lines.push_back(".Trash and .Trash-UID at the top of other disks");
    lines.push_back("every lost+found folder");
    lines.push_back("sockets and FIFOs");
    std::string system;
    for (const char* folder : kSystemFolders)
        system += (system.empty() ? "" : " ") + std::string(folder);
    lines.push_back(system);
    return lines;
}

std::vector<std::string> SystemItems::parseMountInfo(const std::string& text) {
    // "36 35 98:0 /root /mount/point options ... - type source options"
    std::vector<std::string> points;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream fields(line);
        std::string id, parent, device, root, mountPoint;
        if (fields >> id >> parent >> device >> root >> mountPoint)
            points.push_back(decodeOctalEscapes(mountPoint));
    }
    return points;
}

bool SystemItems::isInvisible(const std::string& path) {
    std::string name = lastComponent(path);
    return !name.empty() && name[0] == '.';
}

bool SystemItems::isSystemFolder(const std::string& path) {
    return std::any_of(std::begin(kSystemFolders), std::end(kSystemFolders),
                       [&](const char* folder) { return path == folder; });
}

bool SystemItems::isOnMountedVolumes(const std::string& path) {
    return std::any_of(std::begin(kVolumeRoots), std::end(kVolumeRoots),
                       [&](const char* root) { return isWithin(path, root); });
}

bool SystemItems::isVolume(const std::string& path) const {
    if (!isOnMountedVolumes(path))
        return false;
    return std::find(mountPoints_.begin(), mountPoints_.end(), path) != mountPoints_.end();
}

bool SystemItems::isExcluded(const std::string& path, uint32_t mode) const {
    if (S_ISSOCK(mode) || S_ISFIFO(mode))
        return true;
    std::string name = lastComponent(path);
    if (name == "lost+found")
        return true;
    if (skipHidden_ && isInvisible(path))
        return true;
    if (isOnMountedVolumes(path)) {
        // The desktop's Trash of another disk lies at its top.
        return (name == ".Trash" || name.starts_with(".Trash-")) &&
               std::find(mountPoints_.begin(), mountPoints_.end(),
                         path.substr(0, path.size() - name.size() - 1)) != mountPoints_.end();
    }
    return isSystemFolder(path) ||
           std::find(userFolders_.begin(), userFolders_.end(), path) != userFolders_.end();
}

std::string SystemItems::volumeOf(const std::string& path) const {
    std::string best = "/";
    for (const auto& point : mountPoints_) {
        if (isOnMountedVolumes(point) && point != "/" && isWithin(path, point) &&
            point.size() > best.size())
            best = point;
    }
    return best;
}

} // namespace cirrovault

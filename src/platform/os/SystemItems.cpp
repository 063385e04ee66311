#include "platform/os/SystemItems.h"

#include <algorithm>
#include <exception>
#include <sstream>

#include "platform/os/FileSystem.h"
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
        if (auto text = FileSystem::readFile("/proc/self/mountinfo"))
            mountPoints_ = parseMountInfo(*text);
        else
            SystemLog::write("Error: SystemItems cannot read the mount table");
    } catch (const std::exception&) {
        SystemLog::write("Error: SystemItems cannot read the mount table");
    }
}

SystemItems::SystemItems(std::vector<std::string> mountPoints)
    : mountPoints_(std::move(mountPoints)) {}

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

bool SystemItems::isExcluded(const std::string& path) const {
    bool suspect = isInvisible(path) || isSystemFolder(path) || isVolume(path);
    if (!suspect)
        return false;
    // On another mounted disk only dot-named items are left out.
    if (isOnMountedVolumes(path))
        return isInvisible(path);
    return true;
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

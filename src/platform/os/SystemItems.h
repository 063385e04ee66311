#pragma once

#include <string>
#include <vector>

namespace cirrovault {

// Which items a backup scan leaves out as system items. Invisible items (a name that
// begins with ".") and system folders (/proc, /dev, ...) are left out; on mounted
// volumes (under /media, /run/media, /mnt) only dot-named items are, so another disk
// mounted there is backed up with its visible contents.
//
// The mount table is read once, when the object is made: make one per scan.
class SystemItems {
public:
    SystemItems(); // reads /proc/self/mountinfo
    explicit SystemItems(std::vector<std::string> mountPoints);

    // The mount points of a mountinfo text (escapes such as "\040" decoded).
    static std::vector<std::string> parseMountInfo(const std::string& text);

    static bool isInvisible(const std::string& path);  // last component begins with "."
    static bool isSystemFolder(const std::string& path); // exactly one of the system folders
    // The path lies in one of the folders where other disks are mounted.
    static bool isOnMountedVolumes(const std::string& path);
    // A mount point of another file system in one of those folders.
    bool isVolume(const std::string& path) const;

    // The scan's test for an item found inside a source (never the source itself).
    bool isExcluded(const std::string& path) const;

    // The root of the mounted volume holding path, or "/" for the system disk.
    std::string volumeOf(const std::string& path) const;

    const std::vector<std::string>& mountPoints() const { return mountPoints_; }

private:
    std::vector<std::string> mountPoints_;
};

} // namespace cirrovault

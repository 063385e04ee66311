#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace cirrovault {

// Which items a backup scan leaves out as system items. On Linux "invisible" means what
// the desktop itself treats as disposable, not every dot-name: dotfiles and dot-folders
// (~/.config, ~/.ssh, ~/.bashrc) are the user's own settings and are backed up. Left
// out: the system folders (/proc, /dev, ...), the user's cache folder, Trash and
// thumbnails, our own data and settings folders (the local store must not back up into
// itself, and kept pass phrases must not travel with the files they open), every
// "lost+found", the Trash folders of other disks, sockets and FIFOs. A task may also
// leave out every dot-name (setSkipHidden).
//
// The mount table is read once, when the object is made: make one per scan.
class SystemItems {
public:
    SystemItems(); // reads /proc/self/mountinfo and the user's folders
    // Only the given mount points and user folders (tests).
    explicit SystemItems(std::vector<std::string> mountPoints,
                         std::vector<std::string> userFolders = {});

    // The mount points of a mountinfo text (escapes such as "\040" decoded).
    static std::vector<std::string> parseMountInfo(const std::string& text);
    // This user's folders that are always left out, from the environment.
    static std::vector<std::string> userDisposableFolders();
    // Everything left out, as lines for people: the folders, then the rules by name and type.
    static std::vector<std::string> describeLeftOut();

    static bool isInvisible(const std::string& path);  // last component begins with "."
    static bool isSystemFolder(const std::string& path); // exactly one of the system folders
    // The path lies in one of the folders where other disks are mounted.
    static bool isOnMountedVolumes(const std::string& path);
    // A mount point of another file system in one of those folders.
    bool isVolume(const std::string& path) const;

    void setSkipHidden(bool skip) { skipHidden_ = skip; }
    // The scan's test for an item found inside a source (never the source itself);
    // mode is the item's st_mode, 0 when unknown.
    bool isExcluded(const std::string& path, uint32_t mode = 0) const;

    // The root of the mounted volume holding path, or "/" for the system disk.
    std::string volumeOf(const std::string& path) const;

    const std::vector<std::string>& mountPoints() const { return mountPoints_; }

private:
    std::vector<std::string> mountPoints_;
    std::vector<std::string> userFolders_;
    bool skipHidden_ = false;
};

} // namespace cirrovault

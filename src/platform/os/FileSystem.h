#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/os/Date.h"

namespace cirrovault {

enum class FileType { Regular, Directory, SymbolicLink, Other };

struct FileStatus {
    FileType type = FileType::Other;
    uint64_t size = 0;
    Date modifyTime;
    Date changeTime; // status change; Linux keeps no creation date on every file system
    uint32_t mode = 0;
    uint64_t device = 0;
    uint64_t inode = 0;
};

// Local file-system calls of the whole program. Paths are UTF-8 with "/".
class FileSystem {
public:
    // Status of the item itself: a final symbolic link is not followed.
    static std::optional<FileStatus> linkStatus(const std::string& path);
    // Status of what the path leads to, links followed.
    static std::optional<FileStatus> status(const std::string& path);

    static bool exists(const std::string& path); // anything, a dangling link included
    static bool isRegularFile(const std::string& path); // not following a final link
    static bool isDirectory(const std::string& path);   // not following a final link
    static bool isDirectoryFollowingLinks(const std::string& path);

    // True when it is a folder after. Each folder it makes gets exactly mode, whatever the
    // umask (a umask of 000 must not let other users into our folders); folders that were
    // already there are left as they are.
    static bool createDirectories(const std::string& path, uint32_t mode = 0700);
    static bool createEmptyFile(const std::string& path, uint32_t mode = 0644); // fails if something is there
    // Sets the permission bits of a file or folder; a symbolic link is refused, not followed.
    static bool setPermissions(const std::string& path, uint32_t mode);
    // Moves an item; fails when the target exists.
    static bool moveItem(const std::string& from, const std::string& to);
    // Renames, replacing a file at the target.
    static bool replaceItem(const std::string& from, const std::string& to);
    static bool removeItem(const std::string& path);     // a file, link or empty folder
    static bool removeAll(const std::string& path);      // recursively
    static bool setModifyTime(const std::string& path, Date time);

    static std::optional<std::string> readFile(const std::string& path);
    // Writes a whole file: temporary file beside it, fsync, rename, fsync of the folder.
    // The file gets mode 0644.
    static bool writeFileAtomically(const std::string& path, const std::string& data);
    static bool appendToFile(const std::string& path, const std::string& data);
    // Like writeFileAtomically, but the file is readable by its owner only (mode 0600)
    // from the moment it exists: for secrets such as pass phrases.
    static bool writePrivateFileAtomically(const std::string& path, const std::string& data);
    // On an existing file: writes head over the first bytes, then tail at the end, each
    // with one write call (no O_APPEND, so the head can be rewritten). Callers serialise.
    static bool writeHeadAndAppend(const std::string& path, const std::string& head,
                                   const std::string& tail);
    // Writes every byte to an open descriptor, going on after short and interrupted
    // writes; false with errno kept from the failed write.
    static bool writeAll(int fd, const char* data, size_t size);

    // Entry names of a folder (no "." or ".."), in the order the system gives them.
    static std::optional<std::vector<std::string>> listDirectory(const std::string& path);
    // The folder's entries with their status (links not followed), read relative to the
    // open folder so that no entry costs a walk of the whole path. An entry that went
    // between the listing and its status has no status.
    struct Entry {
        std::string name;
        std::optional<FileStatus> status;
    };
    static std::optional<std::vector<Entry>> listDirectoryWithStatus(const std::string& path);
    // The folder at relative (below the open folder rootFd) opened for lookups only, in
    // one call that refuses links anywhere on the way and any way out of rootFd; -1 (with
    // errno) otherwise, also where the system cannot resolve that way. Caller closes it.
    static int openFolderBeneath(int rootFd, const std::string& relative);

    // Free bytes for an unprivileged user on the file system holding path.
    static std::optional<uint64_t> availableSpace(const std::string& path);
    // The size of the whole file system holding path, free or not.
    static std::optional<uint64_t> totalSpace(const std::string& path);
    static std::string lastErrorText(); // strerror of errno
};

} // namespace cirrovault

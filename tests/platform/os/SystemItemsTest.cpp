#include <gtest/gtest.h>

#include <algorithm>

#include <sys/stat.h>

#include "common/TempHome.h"
#include "platform/os/SystemItems.h"

using namespace cirrovault;
using test::TempHome;

TEST(SystemItems, DotfilesAreKeptAndWhatTheDesktopDiscardsIsLeftOut) {
    SystemItems items({"/", "/media/u/Disk", "/mnt/backup", "/home", "/run/media/u/Stick"},
                      {"/home/u/.cache", "/home/u/.local/share/Trash"});
    // The user's settings are backed up.
    for (const char* kept : {"/home/u/.config", "/home/u/.ssh", "/home/u/.bashrc",
                             "/home/u/a/.hidden.txt", "/home/u/.cache2", "/home/u/x/.cache",
                             "/home/u/dev", "/home/u/visible.txt", "/home"})
        EXPECT_FALSE(items.isExcluded(kept, S_IFREG)) << kept;
    for (const char* left : {"/home/u/.cache", "/home/u/.local/share/Trash", "/dev", "/proc",
                             "/home/u/lost+found", "/lost+found"})
        EXPECT_TRUE(items.isExcluded(left, S_IFDIR)) << left;
    EXPECT_TRUE(items.isExcluded("/home/u/app.sock", S_IFSOCK) &&
                items.isExcluded("/home/u/pipe", S_IFIFO));
    EXPECT_FALSE(items.isExcluded("/home/u/link", S_IFLNK));

    // Another disk is kept whole but for the desktop's Trash at its top.
    EXPECT_TRUE(items.isVolume("/media/u/Disk"));
    auto excluded = [&](std::initializer_list<const char*> paths) {
        std::string marks;
        for (const char* path : paths)
            marks += items.isExcluded(path) ? '+' : '-';
        return marks;
    };
    EXPECT_EQ(excluded({"/media/u/Disk", "/media/u/Disk/.hidden", "/mnt/backup/.Trash-1000",
                        "/media/u/Disk/.Trash", "/media/u/Disk/sub/.Trash-1000"}),
              "--++-");
    EXPECT_FALSE(SystemItems::isOnMountedVolumes("/mntx/a"));
    EXPECT_EQ(
        (std::vector{items.volumeOf("/media/u/Disk/a/b"), items.volumeOf("/media/u/Diskette/a"),
                     items.volumeOf("/home/u"), items.volumeOf("/run/media/u/Stick")}),
        (std::vector<std::string>{"/media/u/Disk", "/", "/", "/run/media/u/Stick"}));

    // A task that asks for it leaves out every dot-name, as before.
    items.setSkipHidden(true);
    EXPECT_EQ(excluded({"/home/u/.bashrc", "/media/u/Disk/.hidden", "/home/u/visible.txt"}), "++-");
}

TEST(SystemItems, MountPointsFromTheMountTableAndTheUsersFoldersFromTheEnvironment) {
    std::string text = "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
                       "40 22 8:17 / /media/u/My\\040Disk rw shared:9 - vfat /dev/sdb1 rw\n"
                       "41 22 0:5 / /proc rw - proc proc rw\n"
                       "broken line\n";
    EXPECT_EQ(SystemItems::parseMountInfo(text),
              (std::vector<std::string>{"/", "/media/u/My Disk", "/proc"}));

    TempHome home;
    setenv("XDG_CACHE_HOME", home.file("cache").c_str(), 1);
    SystemItems items({"/"});
    SystemItems live; // its table always has the root
    EXPECT_NE(std::find(live.mountPoints().begin(), live.mountPoints().end(), "/"),
              live.mountPoints().end());
    // The local store's folder and our settings are left out too.
    for (const std::string& left :
         {home.file("cache"), home.dataHome() + "/Trash", home.dataHome() + "/cirrovault",
          home.configHome() + "/cirrovault"})
        EXPECT_TRUE(live.isExcluded(left)) << left;
    EXPECT_FALSE(live.isExcluded(home.file(".cache")));
    EXPECT_FALSE(items.isExcluded(home.file("cache"))); // given folders only
    auto lines = SystemItems::describeLeftOut();
    EXPECT_NE(std::find(lines.begin(), lines.end(), home.file("cache")), lines.end());
    unsetenv("XDG_CACHE_HOME");
}

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/os/SystemItems.h"

using namespace cirrovault;

namespace {

TEST(SystemItems, ReadsMountPointsFromTheMountTable) {
    std::string text =
        "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
        "40 22 8:17 / /media/u/My\\040Disk rw shared:9 - vfat /dev/sdb1 rw\n"
        "41 22 0:5 / /proc rw - proc proc rw\n"
        "broken line\n";
    std::vector<std::string> points = SystemItems::parseMountInfo(text);
    EXPECT_EQ(points, (std::vector<std::string>{"/", "/media/u/My Disk", "/proc"}));

    // The live table always has the root.
    SystemItems live;
    EXPECT_NE(std::find(live.mountPoints().begin(), live.mountPoints().end(), "/"),
              live.mountPoints().end());
}

TEST(SystemItems, DotNamesAndSystemFoldersOutsideMountedVolumes) {
    SystemItems items({"/", "/media/u/Disk", "/mnt/backup", "/home"});
    EXPECT_TRUE(items.isExcluded("/home/u/.cache"));
    EXPECT_TRUE(items.isExcluded("/home/u/a/.hidden.txt"));
    EXPECT_TRUE(items.isExcluded("/dev"));
    EXPECT_TRUE(items.isExcluded("/proc"));
    EXPECT_FALSE(items.isExcluded("/home/u/dev"));
    EXPECT_FALSE(items.isExcluded("/home/u/visible.txt"));
    EXPECT_FALSE(items.isExcluded("/home")); // a mount point, but not a mounted volume

    // Another disk is kept with its visible contents; only dot names are left out.
    EXPECT_TRUE(items.isVolume("/media/u/Disk"));
    EXPECT_FALSE(items.isExcluded("/media/u/Disk"));
    EXPECT_FALSE(items.isExcluded("/media/u/Disk/visible"));
    EXPECT_TRUE(items.isExcluded("/media/u/Disk/.hidden"));
    EXPECT_TRUE(items.isExcluded("/mnt/backup/.Trash-1000"));
    EXPECT_FALSE(SystemItems::isOnMountedVolumes("/mntx/a"));
}

TEST(SystemItems, VolumeOfAPath) {
    SystemItems items({"/", "/media/u/Disk", "/run/media/u/Stick", "/home"});
    EXPECT_EQ(items.volumeOf("/media/u/Disk/a/b"), "/media/u/Disk");
    EXPECT_EQ(items.volumeOf("/run/media/u/Stick"), "/run/media/u/Stick");
    EXPECT_EQ(items.volumeOf("/media/u/Diskette/a"), "/");
    EXPECT_EQ(items.volumeOf("/home/u"), "/");
}

} // namespace

#include <gtest/gtest.h>

#include <thread>
#include <unistd.h>

#include "common/FileModes.h"
#include "common/TempHome.h"
#include "platform/os/FileSystem.h"

using namespace cirrovault;
using test::permissionsOf;

TEST(FileSystemWrite, AtomicWritesReplaceWholeLeaveNoTemporaryAndFoldersGetExactlyTheirMode) {
    test::TempHome home;
    const std::string folder = home.file("w"), path = folder + "/data.plist";
    ASSERT_TRUE(FileSystem::createDirectories(folder));
    // Only the file written is left: a temporary left behind shows up in the listing.
    const std::vector<std::string> onlyData = {"data.plist"};

    ASSERT_TRUE(FileSystem::writeFileAtomically(path, "first, and longer"));
    ASSERT_TRUE(FileSystem::writeFileAtomically(path, "second"));
    EXPECT_EQ(FileSystem::readFile(path), "second");
    const std::string secret = folder + "/secret.plist";
    ASSERT_TRUE(FileSystem::writePrivateFileAtomically(secret, "phrase"));
    EXPECT_EQ(FileSystem::readFile(secret), "phrase");
    EXPECT_EQ(permissionsOf(secret), 0600u);
    FileSystem::removeItem(secret);
    EXPECT_EQ(FileSystem::listDirectory(folder), onlyData);

    // A folder in the way: the rename fails and the temporary is removed again.
    ASSERT_TRUE(FileSystem::createDirectories(folder + "/blocked/inside"));
    EXPECT_FALSE(FileSystem::writeFileAtomically(folder + "/blocked", "x") ||
                 FileSystem::writePrivateFileAtomically(folder + "/blocked", "x") ||
                 FileSystem::writeFileAtomically(folder + "/missing/file", "x"));
    FileSystem::removeAll(folder + "/blocked");
    EXPECT_EQ(FileSystem::listDirectory(folder), onlyData);

    {
        test::UmaskScope open(0); // must not let other users into a new folder
        ASSERT_TRUE(FileSystem::createDirectories(home.file("a/b/c")));
        ASSERT_TRUE(FileSystem::createEmptyFile(home.file("a/db"), 0600));
    }
    {
        test::UmaskScope closed(077); // nor take away what a caller asked for
        ASSERT_TRUE(FileSystem::createDirectories(home.file("a/b/shared/x/"), 0755));
    }
    // A folder that was there is left alone.
    EXPECT_EQ((std::vector{permissionsOf(home.file("a")), permissionsOf(home.file("a/b")),
                           permissionsOf(home.file("a/b/c")), permissionsOf(home.file("a/db")),
                           permissionsOf(home.file("a/b/shared")),
                           permissionsOf(home.file("a/b/shared/x"))}),
              (std::vector<uint32_t>{0700, 0700, 0700, 0600, 0755, 0755}));

    ASSERT_TRUE(FileSystem::writeFileAtomically(home.file("a/file"), "x"));
    EXPECT_FALSE(FileSystem::createDirectories(home.file("a/file/sub")));
    // A link is refused rather than followed to what it names.
    ASSERT_EQ(::symlink(home.file("a/file").c_str(), home.file("a/link").c_str()), 0);
    EXPECT_FALSE(FileSystem::setPermissions(home.file("a/link"), 0777));
    EXPECT_EQ(permissionsOf(home.file("a/file")), 0644u);
}

TEST(FileSystemWriteThread, WriteAllGoesOnPastShortWritesAndReportsFailure) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    // More than a pipe holds at once, so the reader must drain while the writer goes on.
    const std::string data(1 << 20, 'z');
    std::string received;
    std::thread reader([&] {
        char buffer[4096];
        for (ssize_t n; (n = ::read(fds[0], buffer, sizeof buffer)) > 0;)
            received.append(buffer, static_cast<size_t>(n));
    });
    EXPECT_TRUE(FileSystem::writeAll(fds[1], data.data(), data.size()));
    ::close(fds[1]);
    reader.join();
    ::close(fds[0]);
    EXPECT_EQ(received.size(), data.size());
    EXPECT_FALSE(FileSystem::writeAll(-1, "x", 1));
    EXPECT_EQ(errno, EBADF);
}

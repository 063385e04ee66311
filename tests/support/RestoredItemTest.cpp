#include <gtest/gtest.h>

#include <filesystem>
#include <sys/stat.h>

#include "common/TempHome.h"
#include "platform/framework/LocalFileSink.h"
#include "platform/framework/LocalFileSource.h"
#include "platform/os/FileSystem.h"
#include "support/RestoredItem.h"

using namespace cirrovault;

// What a download writes: the stored bytes under the stored time and mode.
static void download(const std::string& path, const std::string& bytes, Date time, uint32_t mode) {
    auto sink = LocalFileSink::open(path, time, mode);
    ASSERT_TRUE(sink);
    ASSERT_TRUE(sink->write(bytes.data(), bytes.size()));
    ASSERT_TRUE(sink->finish());
}

TEST(RestoredItem, LinksAndModesComeBackAsTheyWere) {
    test::TempHome home;
    const Date when(1'600'000'000.25);

    // A private file is private from its first byte on, and stays so.
    download(home.file("id_key"), "secret", when, S_IFREG | 0600);
    EXPECT_EQ(RestoredItem::finish(home.file("id_key"), S_IFREG | 0600, when), "");
    EXPECT_EQ(FileSystem::linkStatus(home.file("id_key"))->mode & 07777, 0600u);
    download(home.file("tool"), "#!/bin/sh\n", when, S_IFREG | 0755);
    EXPECT_EQ(FileSystem::linkStatus(home.file("tool"))->mode & 07777, 0755u);
    // A copy stored before modes were kept is an ordinary file.
    download(home.file("old"), "x", when, 0);
    EXPECT_EQ(RestoredItem::finish(home.file("old"), 0, when), "");
    EXPECT_EQ(FileSystem::linkStatus(home.file("old"))->mode & 07777, 0644u);

    // A link's stored bytes are its target; a dangling target is kept as it is.
    for (const char* target : {"tool", "../elsewhere/missing dir/"}) {
        download(home.file("link"), target, when, S_IFLNK | 0777);
        EXPECT_EQ(RestoredItem::finish(home.file("link"), S_IFLNK | 0777, when), "");
        EXPECT_EQ(std::filesystem::read_symlink(home.file("link")), target);
        auto status = FileSystem::linkStatus(home.file("link"));
        ASSERT_TRUE(status);
        EXPECT_EQ(status->type, FileType::SymbolicLink);
        EXPECT_NEAR(status->modifyTime.timeIntervalSince1970(), 1'600'000'000.25, 1e-6);
    }
    // Read back for an upload, the link is its target again, never what it points to.
    auto source = LocalFileSource::open(home.file("link"));
    ASSERT_TRUE(source);
    EXPECT_TRUE(S_ISLNK(source->mode()));
    std::string bytes(source->size(), '\0');
    EXPECT_EQ(source->read(bytes.data(), bytes.size()), static_cast<int64_t>(bytes.size()));
    EXPECT_EQ(bytes, "../elsewhere/missing dir/");

    // A damaged record is said, and the bytes stay where they are.
    download(home.file("broken"), "", when, S_IFLNK | 0777);
    EXPECT_NE(RestoredItem::finish(home.file("broken"), S_IFLNK | 0777, when), "");
    EXPECT_TRUE(FileSystem::isRegularFile(home.file("broken")));
}

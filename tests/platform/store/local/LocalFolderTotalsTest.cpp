// Figures read while folders still changed are read again when a session ends.
#include <algorithm>

#include <gtest/gtest.h>

#include "common/TempHome.h"
#include "platform/os/FileSystem.h"
#include "platform/store/local/LocalFolderTotals.h"

namespace cirrovault::test {

namespace {

std::vector<std::string> keptPaths(LocalFolderTotals& totals) {
    std::vector<std::pair<std::string, std::string>> changed;
    std::vector<std::string> gone;
    totals.takeChanges(changed, gone);
    std::vector<std::string> paths;
    for (const auto& [path, record] : changed)
        paths.push_back(path);
    std::sort(paths.begin(), paths.end());
    return paths;
}

TEST(LocalFolderTotalsTest, FreshReadingsAreSettledAtTheEndOfASession) {
    TempHome home;
    const std::string top = home.file("top");
    ASSERT_TRUE(FileSystem::createDirectories(top + "/inner"));
    ASSERT_TRUE(FileSystem::writeFileAtomically(top + "/inner/a", "12345"));
    ASSERT_TRUE(FileSystem::writeFileAtomically(top + "/b", "xy"));

    LocalFolderTotals totals;
    LocalFolderTotals::Totals figures = totals.of(top, "\\top", {});
    EXPECT_EQ(figures.bytes, 7u);
    EXPECT_EQ(figures.files, 2);
    EXPECT_TRUE(keptPaths(totals).empty()); // just written: not to be trusted yet

    totals.settle(); // still too fresh: nothing to keep
    EXPECT_TRUE(keptPaths(totals).empty());

    const Date past = Date::now().addingTimeInterval(-60);
    ASSERT_TRUE(FileSystem::setModifyTime(top, past));
    ASSERT_TRUE(FileSystem::setModifyTime(top + "/inner", past));
    totals.settle();
    EXPECT_EQ(keptPaths(totals), (std::vector<std::string>{top, top + "/inner"}));

    // A folder that went before the end of the session is dropped, not kept.
    ASSERT_TRUE(FileSystem::writeFileAtomically(top + "/inner/c", "c"));
    totals.forget(top + "/inner");
    totals.of(top, "\\top", {});
    ASSERT_TRUE(FileSystem::removeAll(top + "/inner"));
    totals.settle();
    EXPECT_TRUE(keptPaths(totals).empty());
    EXPECT_EQ(totals.of(top, "\\top", {}).bytes, 2u);
}

} // namespace

} // namespace cirrovault::test

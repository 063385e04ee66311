// A listing gives each file of the folder its own kept mode, and only those: the files of
// sub-folders, deeper folders and folders whose names sort around the separator are
// another listing's.
#include <map>

#include <gtest/gtest.h>

#include "../StoreTestSupport.h"
#include "common/TempHome.h"
#include "platform/os/ResultCodes.h"
#include "platform/store/local/LocalStore.h"

namespace cirrovault::test {

TEST(LocalStoreListingModesTest, EachListingHoldsItsOwnFilesModesOnly) {
    TempHome home;
    LocalStore store(home.file("store"));
    StoreSession session;
    ASSERT_EQ(store.logon("alice", "pw", session), ResultCode::Success);
    // "a b" and "a]" sort just before and after the "a\" of a's own rows.
    for (const char* folder : {"\\a", "\\a b", "\\a]", "\\a\\b", "\\a\\b\\c", "\\a\\d"})
        ASSERT_EQ(store.makeFolder(folder, "", ""), ResultCode::Success) << folder;
    const std::map<std::string, uint32_t> files = {
        {"\\a\\x", 0100640},       {"\\a\\z", 0100600},      {"\\a\\b\\y", 0100700},
        {"\\a\\b\\c\\w", 0100604}, {"\\a\\d\\v", 0100666},   {"\\a b\\u", 0100644},
        {"\\a]\\t", 0100640},      {"\\a\\e", 0100751}};
    for (const auto& [path, mode] : files) {
        MemorySource source("bytes of " + path, "tag", mode);
        ASSERT_EQ(store.put(path, source, Date(), nullptr), ResultCode::Success) << path;
    }
    auto modesIn = [&](const std::string& folder) {
        std::vector<StoreItem> items;
        EXPECT_EQ(store.list(folder, items), ResultCode::Success) << folder;
        std::map<std::string, uint32_t> modes;
        for (const auto& item : items)
            modes[item.name] = item.isFolder ? 0 : item.mode;
        return modes;
    };
    using Modes = std::map<std::string, uint32_t>;
    EXPECT_EQ(modesIn("\\a"), (Modes{{"b", 0}, {"d", 0}, {"e", 0100751}, {"x", 0100640},
                                      {"z", 0100600}}));
    EXPECT_EQ(modesIn("\\a\\b"), (Modes{{"c", 0}, {"y", 0100700}}));
    EXPECT_EQ(modesIn("\\a\\b\\c"), (Modes{{"w", 0100604}}));
    EXPECT_EQ(modesIn("\\a b"), (Modes{{"u", 0100644}}));
    EXPECT_EQ(modesIn("\\"), (Modes{{"a", 0}, {"a b", 0}, {"a]", 0}}));
    StoreItem one;
    ASSERT_EQ(store.stat("\\a\\b\\y", one), ResultCode::Success);
    EXPECT_EQ(one.mode, 0100700u);
}

} // namespace cirrovault::test

#include <gtest/gtest.h>

#include "platform/store/StorePath.h"

namespace cirrovault {

using Names = std::vector<std::string>;

TEST(StorePathTest, SplitsAcceptedFormsIntoNamesAndRefusesPathsThatCouldLeaveTheRoot) {
    EXPECT_EQ(StorePath::split("\\"), Names{});
    EXPECT_EQ(StorePath::split("\\a\\b c\\d.txt"), (Names{"a", "b c", "d.txt"}));
    EXPECT_EQ(StorePath::split("a\\b"), (Names{"a", "b"}));     // leading "\" optional
    EXPECT_EQ(StorePath::split("\\a\\b\\"), (Names{"a", "b"})); // one trailing "\" tolerated
    EXPECT_EQ(StorePath::split("\\C:\\...\\.hidden"), (Names{"C:", "...", ".hidden"}));
    EXPECT_EQ(StorePath::normalize("a\\b\\"), "\\a\\b");
    EXPECT_EQ(StorePath::normalize("\\"), "\\");
    EXPECT_EQ(StorePath::join({}), "\\");
    EXPECT_TRUE(StorePath::split("\\" + std::string(255, 'x')));

    for (const auto& bad : std::vector<std::string>{
             "", "\\\\", "\\a\\\\b", "\\a\\\\", "..", "\\..", "\\a\\..\\..\\x", ".", "\\a\\.\\b", "\\a/b",
             "/etc/passwd", "\\a\\b\\\\", std::string("\\a\0b", 4), "\\" + std::string(256, 'x')})
        EXPECT_FALSE(StorePath::split(bad)) << bad;
    EXPECT_FALSE(StorePath::isValidName("a\\b"));
}

TEST(StorePathTest, NamesBesideLongNamesAreShortenedWithinTheLimit) {
    EXPECT_EQ(StorePath::nameWithSuffix("a.txt", ".part"), "a.txt.part");
    EXPECT_EQ(StorePath::partPath("\\d\\a.txt"), "\\d\\a.txt.part");
    EXPECT_EQ(StorePath::nameWithSuffix(std::string(235, 'x'), ".part"), std::string(235, 'x') + ".part");

    // Long names differing at their end, a two-byte character where the cut falls.
    std::string one = std::string(217, 'n') + "\xc3\xa9" + std::string(20, 'z') + "1";
    std::string two = one;
    two.back() = '2';
    std::string partOne = StorePath::nameWithSuffix(one, ".part");
    std::string partTwo = StorePath::nameWithSuffix(two, ".part");
    EXPECT_LE(partOne.size(), StorePath::MadeNameLength);
    EXPECT_TRUE(partOne.ends_with(".part"));
    EXPECT_NE(partOne, partTwo);
    EXPECT_EQ(partOne, StorePath::nameWithSuffix(one, ".part")); // found again later
    EXPECT_TRUE(StorePath::isValidName(partOne));
    EXPECT_EQ(partOne.find("\xc3~"), std::string::npos);
    EXPECT_EQ(StorePath::partPath("\\d\\" + one), "\\d\\" + partOne);
}

TEST(StorePathTest, TreeRelationsRespectNameBoundaries) {
    EXPECT_TRUE(StorePath::isSameOrInside("\\a", "\\a"));
    EXPECT_TRUE(StorePath::isSameOrInside("\\a\\b", "\\a"));
    EXPECT_FALSE(StorePath::isSameOrInside("\\ab", "\\a"));
    EXPECT_FALSE(StorePath::isSameOrInside("\\a", "\\a\\b"));
    EXPECT_TRUE(StorePath::isSameOrInside("\\x", "\\"));

    EXPECT_EQ(StorePath::child("\\", "a"), "\\a");
    EXPECT_EQ(StorePath::child("\\a", "b"), "\\a\\b");
    EXPECT_EQ(StorePath::rebase("\\a\\b\\c", "\\a", "\\x"), "\\x\\b\\c");
    EXPECT_EQ(StorePath::rebase("\\a", "\\a", "\\x\\y"), "\\x\\y");
    EXPECT_EQ(StorePath::rebase("\\a\\b", "\\", "\\x"), "\\x\\a\\b");
    EXPECT_EQ(StorePath::rebase("\\a\\b", "\\a", "\\"), "\\b");
}

} // namespace cirrovault

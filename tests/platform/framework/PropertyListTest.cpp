#include <gtest/gtest.h>

#include "common/TempHome.h"
#include "platform/framework/PropertyList.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"

using namespace cirrovault;

TEST(PropertyList, RoundTripKeepsEveryKind) {
    PlistDict inner{{"n", PropertyList(int64_t{-5})}, {"flag", PropertyList(true)}};
    PlistDict root{{"text", PropertyList("a<b>&\"c\" é")},
                   {"big", PropertyList(int64_t{1} << 40)},
                   {"real", PropertyList(2.5)},
                   {"list", PropertyList(PlistArray{PropertyList("x"), PropertyList(int64_t{7})})},
                   {"inner", PropertyList(inner)}};
    PropertyList p(root);
    auto back = PropertyList::parse(p.toXml());
    ASSERT_TRUE(back);
    EXPECT_EQ(*back, p);
    EXPECT_NE(p.toXml().find("<?xml"), std::string::npos);
}

TEST(PropertyList, DamagedInputGivesNothing) {
    EXPECT_FALSE(PropertyList::parse(""));
    EXPECT_FALSE(PropertyList::parse("hello"));
    EXPECT_FALSE(PropertyList::parse("<?xml version=\"1.0\"?><plist><dict><key>a</key>"));
    EXPECT_FALSE(PropertyList::parse("bplist00\x01\x02"));
    std::string truncated = PropertyList(PlistDict{{"PC Name", PropertyList("x")}}).toXml();
    truncated.resize(truncated.size() / 2);
    EXPECT_FALSE(PropertyList::parse(truncated));
}

TEST(PropertyList, FileWriteIsWholeAndReadable) {
    test::TempHome home;
    std::string path = home.file("a.plist");
    SystemLog::startCapture();
    EXPECT_FALSE(PropertyListFile::read(path)); // missing: nothing, no complaint
    EXPECT_FALSE(SystemLog::capturedContains("not a property list"));
    ASSERT_TRUE(PropertyListFile::write(path, PropertyList(PlistDict{{"k", PropertyList("v")}})));
    auto read = PropertyListFile::read(path);
    ASSERT_TRUE(read);
    EXPECT_EQ(*read->find("k")->string(), "v");
    ASSERT_TRUE(FileSystem::writeFileAtomically(path, "garbage"));
    EXPECT_FALSE(PropertyListFile::read(path));
    EXPECT_TRUE(SystemLog::capturedContains("not a property list"));
    SystemLog::stopCapture();
    auto names = FileSystem::listDirectory(home.path());
    ASSERT_TRUE(names);
    EXPECT_EQ(names->size(), 3u); // a.plist, data, config: no temporary left behind
}

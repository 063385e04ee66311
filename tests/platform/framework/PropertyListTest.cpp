#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "common/TempHome.h"
#include "platform/framework/PropertyList.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"

using namespace cirrovault;

TEST(PropertyList, RoundTripKeepsEveryKindDamagedInputGivesNothingAndHugeRealsAreNoIntegers) {
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
    EXPECT_EQ(p.toXml().rfind("<?xml", 0), 0u);
    std::string truncated = p.toXml();
    truncated.resize(truncated.size() / 2);
    for (const std::string& damaged :
         {std::string(), std::string("hello"), truncated,
          std::string("<?xml version=\"1.0\"?><plist><dict><key>a</key>"),
          std::string("bplist00\x01\x02")})
        EXPECT_FALSE(PropertyList::parse(damaged)) << damaged;

    // Reals are cut toward zero; those out of the integer range are no integer.
    EXPECT_EQ(PropertyList(2.9).asInteger(), 2);
    EXPECT_EQ(PropertyList(-2.9).asInteger(), -2);
    EXPECT_EQ(PropertyList(-9223372036854775808.0).asInteger(), INT64_MIN);
    SystemLog::startCapture();
    for (double huge : {1e300, 9223372036854775808.0, -1e19, std::nan(""), HUGE_VAL})
        EXPECT_FALSE(PropertyList(huge).asInteger()) << huge;
    EXPECT_TRUE(SystemLog::capturedContains("out of the integer range"));
    SystemLog::stopCapture();
}

TEST(PropertyList, FileWriteIsWholeReadableAndOnlyFaithful) {
    test::TempHome home;
    std::string path = home.file("a.plist");
    SystemLog::startCapture();
    EXPECT_FALSE(PropertyListFile::read(path)); // missing: nothing, no complaint
    EXPECT_FALSE(SystemLog::capturedContains("not a property list"));
    ASSERT_TRUE(FileSystem::writeFileAtomically(path, "garbage"));
    EXPECT_FALSE(PropertyListFile::read(path));
    EXPECT_TRUE(SystemLog::capturedContains("not a property list"));

    // What cannot be written faithfully is not written, and what was there stays.
    ASSERT_TRUE(PropertyListFile::write(path, PropertyList(PlistDict{{"k", PropertyList("kept")}})));
    for (const PropertyList& bad :
         {PropertyList(PlistDict{{"k", PropertyList(std::string("a\0b", 3))}}),
          PropertyList(PlistDict{{std::string("k\0", 2), PropertyList("v")}}),
          PropertyList(PlistArray{PropertyList(Date(1e12))}),
          PropertyList(PlistDict{{"d", PropertyList(Date(-3e9))}})}) {
        EXPECT_THROW(bad.toXml(), std::invalid_argument);
        EXPECT_FALSE(PropertyListFile::write(path, bad));
    }
    EXPECT_TRUE(SystemLog::capturedContains("property list not written"));
    SystemLog::stopCapture();
    EXPECT_EQ(*PropertyListFile::read(path)->find("k")->string(), "kept");
    EXPECT_EQ(FileSystem::status(path)->mode & 0777, 0600u); // settings may hold a password
    // a.plist, data, config, run: no temporary left behind
    EXPECT_EQ(FileSystem::listDirectory(home.path()).value_or(std::vector<std::string>{}).size(), 4u);
}

namespace {

// A binary property list of one dictionary {key: value}, from the encoded objects.
std::string binaryDict(const std::string& key, const std::string& value) {
    std::string out = std::string("bplist00") + "\xD1\x01\x02" + key + value;
    out += {'\x08', '\x0B', static_cast<char>(11 + key.size())};
    std::string trailer(6, '\0');
    trailer += "\x01\x01"; // offset and object reference widths
    for (uint64_t v : {uint64_t{3}, uint64_t{0}, uint64_t{out.size() - 3}}) // objects, top, table
        for (int shift = 56; shift >= 0; shift -= 8)
            trailer += static_cast<char>((v >> shift) & 0xFF);
    return out + trailer;
}

std::string ascii(const std::string& text) {
    return static_cast<char>(0x50 | text.size()) + text;
}

std::string binaryDate(double secondsSince2001) {
    uint64_t raw;
    std::memcpy(&raw, &secondsSince2001, sizeof raw);
    std::string out = "\x33";
    for (int shift = 56; shift >= 0; shift -= 8)
        out += static_cast<char>((raw >> shift) & 0xFF);
    return out;
}

std::string xmlDict(const std::string& inner) {
    return "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>" + inner + "</dict></plist>";
}

} // namespace

// The library cuts texts at a NUL (two keys could become one) and keeps dates in 32 bits.
TEST(PropertyList, NulCharactersAndOutOfRangeDatesAreRefused) {
    // The hand-made binary form is sound: the same shapes without the fault parse.
    auto fine = PropertyList::parse(binaryDict(ascii("k"), ascii("v")));
    ASSERT_TRUE(fine);
    EXPECT_EQ(*fine->find("k")->string(), "v");
    auto dated = PropertyList::parse(binaryDict(ascii("d"), binaryDate(86400.0)));
    ASSERT_TRUE(dated);
    EXPECT_EQ(std::get<Date>(dated->find("d")->value()), Date(978307200.0 + 86400));

    const std::string nulUtf16 = std::string("\x62\x00\x61\x00\x00", 5); // "a\0" in UTF-16
    struct Case {
        std::string bytes;
        const char* reason;
    } cases[] = {
        {binaryDict(ascii(std::string("a\0b", 3)), ascii("v")), "NUL"},
        {binaryDict(ascii("k"), ascii(std::string("x\0y", 3))), "NUL"},
        {binaryDict(ascii("k"), nulUtf16), "NUL"},
        {binaryDict(ascii("d"), binaryDate(1e300)), "date out of range"},
        {binaryDict(ascii("d"), binaryDate(std::nan(""))), "date out of range"},
        {binaryDict(ascii("k"), "\x5F\x10\x7F" "abc"), "damaged"}, // length beyond the data
        {xmlDict(std::string("<key>a</key><string>x\0y</string>", 33)), "NUL"},
        {xmlDict("<key>a&#0;b</key><string>x</string>"), "NUL"},
        {xmlDict("<key>a</key><string>x&#x0000;y</string>"), "NUL"},
        {xmlDict("<key>d</key><date>9999-01-01T00:00:00Z</date>"), "date out of range"},
        {xmlDict("<key>d</key><date>1200-01-01T00:00:00Z</date>"), "date out of range"},
    };
    for (const auto& c : cases) {
        SystemLog::startCapture();
        std::string error;
        EXPECT_FALSE(PropertyList::parse(c.bytes, &error)) << c.reason;
        EXPECT_TRUE(error.find(c.reason) != std::string::npos &&
                    SystemLog::capturedContains("property list refused"))
            << error;
        SystemLog::stopCapture();
    }
    // A NUL-like reference that is not one, and dates at the edges, still read.
    EXPECT_TRUE(PropertyList::parse(xmlDict("<key>a</key><string>&#10;&#x30;</string>")));
    EXPECT_TRUE(PropertyList::parse(xmlDict("<key>d</key><date>2068-12-31T00:00:00Z</date>")));
}

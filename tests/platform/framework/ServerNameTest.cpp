#include <gtest/gtest.h>

#include "platform/framework/ServerName.h"

using namespace cirrovault;

TEST(ServerName, RefusedCharactersAreEscapedAndComeBackNameByNameInPaths) {
    EXPECT_EQ(ServerName::encode("Notes 10:30.txt"), "Notes 10%3A30.txt");
    EXPECT_EQ(ServerName::encode("a\\b*c?d\"e<f>g|h{i}"),
              "a%5Cb%2Ac%3Fd%22e%3Cf%3Eg%7Ch%7Bi%7D");
    // Names without refused characters, "%" included, are kept as earlier runs stored them.
    for (const char* plain : {"report.pdf", "100%.txt", "%20 and %zz", "é ü 漢字", "%", "%3"})
        EXPECT_EQ(ServerName::encode(plain), plain) << plain;

    // Every name comes back, also those that look like escapes already.
    for (const char* name : {"Notes 10:30.txt", "%3A", "a%3A:b", "%%3A", "%25", "%2525:",
                             "x%3", "x%3:", "100%", "%5C\\", "%3a:", "::", "a%7B{%7D}"}) {
        std::string stored = ServerName::encode(name);
        EXPECT_FALSE(ServerName::needsEncoding(stored)) << name;
        EXPECT_EQ(ServerName::decode(stored), name) << name << " stored as " << stored;
    }
    EXPECT_EQ(ServerName::encode("%3A"), "%253A");
    // Lower-case hex is never written, so never read as an escape.
    EXPECT_EQ(ServerName::decode("a%3ab"), "a%3ab");

    EXPECT_EQ(ServerName::encodePath("Docs/10:30/a?.txt"), "Docs\\10%3A30\\a%3F.txt");
    EXPECT_EQ(ServerName::encodePath("/Docs/back\\slash"), "\\Docs\\back%5Cslash");
    EXPECT_EQ(ServerName::decodePath("Docs\\10%3A30\\a%3F.txt"), "Docs/10:30/a?.txt");
    EXPECT_EQ(ServerName::decodePath(ServerName::encodePath("a/b\\c/d")), "a/b\\c/d");
}

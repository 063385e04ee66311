// `check` over the older versions of a folder whose file names run into one another
// ("f1.txt" beside "f10.txt" … "f19.txt"): every version is its own file's, so a whole
// history checks clean, and a version lost on the service is named with its file.
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CliRunner.h"
#include "common/TempHome.h"
#include "platform/os/FileSystem.h"

namespace cirrovault::test {
namespace {

TEST(CliCheckVersions, VersionsOfNamesThatRunIntoOneAnotherCheckCleanAndALostOneIsNamed) {
    TempHome home;
    CliRunner cli(home.file("scratch"));
    FileSystem::createDirectories(home.file("scratch"));
    FileSystem::createDirectories(home.file("Docs"));
    cli.setEnv("CIRROVAULT_PASSWORD=secret");
    const std::string store = home.file("store");
    auto run = [&](std::vector<std::string> args) {
        args.insert(args.begin(), {"--user", "alice", "--service", "file://" + store});
        return cli.run(args);
    };
    for (int change = 0; change < 3; ++change) {
        for (int i = 1; i <= 20; ++i) {
            std::string path = home.file("Docs/f" + std::to_string(i) + ".txt");
            ASSERT_TRUE(FileSystem::writeFileAtomically(path, std::string(i + change * 20, 'x')));
            ASSERT_TRUE(FileSystem::setModifyTime(path, Date(1'700'000'000.0 + change * 100 + i)));
        }
        ASSERT_EQ(run({"backup", home.file("Docs")}).code, 0);
    }
    auto clean = run({"check", "Docs"});
    EXPECT_EQ(clean.code, 0) << clean.out << clean.err;
    EXPECT_NE(clean.out.find("20 files and 40 older versions checked; 0 problems"), std::string::npos)
        << clean.out;

    // f1.txt's versions skip the numbers whose names f10.txt … f19.txt would claim: its
    // first two are "f1100.txt" and "f1101.txt".
    std::string lost;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(store))
        if (entry.path().filename() == "f1100.txt")
            lost = entry.path();
    ASSERT_FALSE(lost.empty());
    ASSERT_TRUE(FileSystem::removeItem(lost));
    auto gap = run({"check", "Docs"});
    EXPECT_EQ(gap.code, 1);
    EXPECT_NE(gap.out.find("Docs/f1.txt: older version 100 is missing (versions up to 101 are kept)"),
              std::string::npos)
        << gap.out;
    EXPECT_EQ(gap.out.find("older version 0 is missing"), std::string::npos) << gap.out;
}

} // namespace
} // namespace cirrovault::test

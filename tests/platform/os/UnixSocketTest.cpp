#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <unistd.h>

#include "common/FileModes.h"
#include "common/ScopedEnv.h"
#include "common/TempHome.h"
#include "platform/os/CallCancel.h"
#include "platform/os/FileSystem.h"
#include "platform/os/UnixSocket.h"
#include "platform/os/UserUnits.h"

using namespace cirrovault;
using test::ScopedEnv;
using test::TempHome;

// A listener that ended leaves a file that refuses; the next listener replaces it.
TEST(UnixSocket, LinesBothWaysAFileLeftBehindRefusesAndTheRuntimeFolderIsOurs) {
    TempHome home;
    std::string folder = UnixSocket::runtimeFolder();
    ASSERT_EQ(folder, home.file("run/cirrovault"));
    EXPECT_EQ(test::permissionsOf(folder), 0700u);
    std::string path = folder + "/a.sock";

    UnixSocket::Connect how;
    EXPECT_FALSE(UnixSocket::connect(path, &how).valid() || how != UnixSocket::Connect::Absent);
    {
        UnixSocket listener = UnixSocket::listen(path);
        ASSERT_TRUE(listener.valid());
        EXPECT_EQ(test::permissionsOf(path), 0600u);
        UnixSocket client = UnixSocket::connect(path, &how);
        ASSERT_EQ(how, UnixSocket::Connect::Connected);
        UnixSocket server = listener.accept(5);
        ASSERT_TRUE(server.valid());

        std::string line;
        EXPECT_EQ(server.readLine(line, 0.05), UnixSocket::Read::Timeout);
        // What came after a line waits for the next read.
        ASSERT_TRUE(client.sendLine("backup two words\\nand more") && client.sendLine(""));
        auto next = [&](UnixSocket& from) {
            return from.readLine(line, 5) == UnixSocket::Read::Line ? "[" + line + "]" : "-";
        };
        std::string first = next(server);
        EXPECT_EQ(first + next(server), "[backup two words\\nand more][]");
        ASSERT_TRUE(server.sendLine("pong 1"));
        EXPECT_EQ(next(client), "[pong 1]");

        // A peer that floods without a line end is cut off, not buffered without end.
        std::string flood(70 * 1024, 'x');
        std::thread writer([&] { client.sendLine(flood); });
        EXPECT_EQ(server.readLine(line, 5), UnixSocket::Read::Closed);
        server = UnixSocket();
        writer.join();
        EXPECT_EQ(client.readLine(line, 5), UnixSocket::Read::Closed);
        EXPECT_FALSE(listener.accept(0).valid());
    }
    ASSERT_TRUE(FileSystem::exists(path));
    EXPECT_FALSE(UnixSocket::connect(path, &how).valid() || how != UnixSocket::Connect::Refused);
    UnixSocket again = UnixSocket::listen(path);
    ASSERT_TRUE(again.valid());
    EXPECT_TRUE(UnixSocket::connect(path, &how).valid());

    // Without XDG_RUNTIME_DIR: our own folder under /tmp, closed even when it was found open.
    ScopedEnv runtime("XDG_RUNTIME_DIR", std::nullopt);
    std::string expected = "/tmp/cirrovault-" + std::to_string(getuid());
    bool existed = FileSystem::exists(expected);
    if (existed && test::permissionsOf(expected) == 0xFFFF)
        GTEST_SKIP() << expected << " is not ours to test with";
    if (existed)
        ::chmod(expected.c_str(), 0755);
    EXPECT_EQ(UnixSocket::runtimeFolder(), expected);
    EXPECT_EQ(test::permissionsOf(expected), 0700u);
    if (!existed)
        FileSystem::removeItem(expected);
}

// Its own time limit is past the test's: a wait that ignored the cancel flag fails.
TEST(UserUnits, SystemctlStopsOnTheCancelFlag) {
    TempHome home;
    std::string bin = home.file("bin");
    FileSystem::createDirectories(bin);
    ASSERT_TRUE(FileSystem::writeFileAtomically(bin + "/systemctl", "#!/bin/sh\nexec sleep 1000\n"));
    FileSystem::setPermissions(bin + "/systemctl", 0755);
    ScopedEnv path("PATH", bin + ":/usr/bin:/bin");
    auto flag = std::make_shared<std::atomic<bool>>(false);
    std::thread press([flag] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        *flag = true;
    });
    CallCancel cancel(flag);
    EXPECT_FALSE(UserUnits::systemctl({"daemon-reload"}, 1000));
    press.join();
}

#include <chrono>
#include <csignal>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/ScopedEnv.h"
#include "common/TempHome.h"
#include "platform/os/DesktopNotifier.h"
#include "platform/os/FileSystem.h"

#if __has_include(<systemd/sd-bus.h>)
#include <systemd/sd-bus.h>
#define CV_TEST_SD_BUS 1
#endif

namespace cirrovault::test {
namespace {

#ifdef CV_TEST_SD_BUS

// The last summary and body shown, and every notification's urgency, one digit each.
struct Shown {
    std::string summary, body, urgencies;
};

int onNotify(sd_bus_message* m, void* data, sd_bus_error*) {
    auto* shown = static_cast<Shown*>(data);
    const char *app, *icon, *summary, *body, *key;
    uint32_t replaces;
    if (sd_bus_message_read(m, "susss", &app, &replaces, &icon, &summary, &body) < 0 ||
        sd_bus_message_skip(m, "as") < 0 || sd_bus_message_enter_container(m, 'a', "{sv}") < 0)
        return -EINVAL;
    uint8_t urgency = 255;
    while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
        sd_bus_message_read(m, "s", &key);
        std::string(key) == "urgency" ? sd_bus_message_read(m, "v", "y", &urgency)
                                      : sd_bus_message_skip(m, "v");
        sd_bus_message_exit_container(m);
    }
    *shown = {summary, body, shown->urgencies + std::to_string(urgency)};
    return sd_bus_reply_method_return(m, "u", uint32_t{7});
}

const sd_bus_vtable NotificationsTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Notify", "susssasa{sv}i", "u", onNotify, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END};

TEST(DesktopNotifier, ReachesTheSessionsServiceAndIsSilentWithoutOne) {
    if (::access("/usr/bin/dbus-daemon", X_OK) != 0)
        GTEST_SKIP() << "no dbus-daemon for a private session bus";
    TempHome home;
    std::string socket = home.file("bus"), listen = "--address=unix:path=" + socket;
    ScopedEnv address("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + socket);
    const char* argv[] = {"/usr/bin/dbus-daemon", "--session", "--nofork", "--nopidfile",
                          listen.c_str(), nullptr};
    pid_t daemon = 0;
    ASSERT_EQ(::posix_spawn(&daemon, argv[0], nullptr, nullptr, const_cast<char**>(argv), environ),
              0);
    for (int i = 0; i < 100 && !FileSystem::exists(socket); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));

    // No service on the bus yet: nothing shown, nothing hangs.
    EXPECT_FALSE(DesktopNotifier::notify("Backup finished", "all well", false));

    Shown shown;
    std::atomic<bool> stop{false}, serving{false};
    std::thread service([&] {
        sd_bus* bus = nullptr; // the object's slot floats: it goes with the bus
        if (sd_bus_open_user(&bus) >= 0 &&
            sd_bus_add_object_vtable(bus, nullptr, "/org/freedesktop/Notifications",
                                     "org.freedesktop.Notifications", NotificationsTable, &shown) >= 0 &&
            sd_bus_request_name(bus, "org.freedesktop.Notifications", 0) >= 0) {
            serving = true;
            while (!stop)
                if (sd_bus_process(bus, nullptr) <= 0)
                    sd_bus_wait(bus, 100'000);
        }
        sd_bus_flush_close_unref(bus);
    });
    for (int i = 0; i < 100 && !serving; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_TRUE(serving);

    EXPECT_TRUE(DesktopNotifier::notify("Backup failed: \"Docs\"", "the disk is gone", true));
    EXPECT_TRUE(DesktopNotifier::notify("Backup finished: \"Docs\"", "Sent: 2 KB", false));
    stop = true;
    service.join();
    EXPECT_EQ(std::tie(shown.summary, shown.body, shown.urgencies),
              std::make_tuple("Backup finished: \"Docs\"", "Sent: 2 KB", "21")); // failure critical
    ::kill(daemon, SIGTERM);
    ::waitpid(daemon, nullptr, 0);

    // No session bus at all (a server, a cron job): silently nothing.
    ScopedEnv noBus("DBUS_SESSION_BUS_ADDRESS", std::nullopt);
    ScopedEnv runtime("XDG_RUNTIME_DIR", home.file("no-runtime"));
    EXPECT_FALSE(DesktopNotifier::notify("Backup finished", "all well", false));
}

#endif

} // namespace
} // namespace cirrovault::test

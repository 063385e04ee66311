#include "platform/os/DesktopNotifier.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"

#ifdef CV_HAVE_LIBSYSTEMD
#include <systemd/sd-bus.h>
#endif

namespace cirrovault {

#ifdef CV_HAVE_LIBSYSTEMD

namespace {

// Asked before connecting: a bus library may otherwise try to start a bus of its own.
bool sessionBusNamed() {
    if (const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS"); address && *address)
        return true;
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    return runtime && *runtime && FileSystem::exists(std::string(runtime) + "/bus");
}

} // namespace

bool DesktopNotifier::notify(const std::string& summary, const std::string& body, bool urgent) {
    if (!sessionBusNamed())
        return false;
    constexpr uint64_t CallLimitMicroseconds = 2'000'000;
    constexpr uint8_t Normal = 1, Critical = 2; // the service's urgency levels
    sd_bus* bus = nullptr;
    sd_bus_message* call = nullptr;
    sd_bus_message* reply = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    bool shown = false;
    if (sd_bus_open_user(&bus) >= 0 &&
        sd_bus_message_new_method_call(bus, &call, "org.freedesktop.Notifications",
                                       "/org/freedesktop/Notifications",
                                       "org.freedesktop.Notifications", "Notify") >= 0 &&
        // Application, nothing to replace, no icon, the texts, no actions, the urgency,
        // and the desktop's own display time.
        sd_bus_message_append(call, "susssasa{sv}i", "cirrovault", uint32_t{0}, "",
                              summary.c_str(), body.c_str(), 0, 1, "urgency", "y",
                              urgent ? Critical : Normal, int32_t{-1}) >= 0) {
        int rc = sd_bus_call(bus, call, CallLimitMicroseconds, &error, &reply);
        shown = rc >= 0;
        // A session without a notification service is normal (a remote login): not an
        // error worth a line.
        if (!shown && !sd_bus_error_has_name(&error, "org.freedesktop.DBus.Error.ServiceUnknown"))
            SystemLog::write(std::string("Desktop notification not shown: ") +
                             (error.message ? error.message : std::strerror(-rc)));
    }
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    sd_bus_message_unref(call);
    sd_bus_flush_close_unref(bus);
    return shown;
}

#else

bool DesktopNotifier::notify(const std::string&, const std::string&, bool) { return false; }

#endif

} // namespace cirrovault

#pragma once

#include <string>

namespace cirrovault {

// A notification on the user's desktop, through the session's notification service
// (org.freedesktop.Notifications on the session bus). Without a session bus, a service
// or libsystemd, nothing is shown and nothing is said: a server has no desktop to tell.
// Each call waits at most two seconds.
class DesktopNotifier {
public:
    // urgent: the desktop is asked to keep it until the user dismisses it.
    static bool notify(const std::string& summary, const std::string& body, bool urgent);
};

} // namespace cirrovault

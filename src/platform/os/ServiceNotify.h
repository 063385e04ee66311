#pragma once

namespace cirrovault {

// Tells the service manager how a long-running process is doing (a unit of Type=notify:
// ready, stopping, still alive). Outside such a unit, or built without libsystemd,
// every call does nothing.
class ServiceNotify {
public:
    static void ready();
    static void stopping();
    static void alive(); // one watchdog ping
    // How often alive() must be called: half the unit's watchdog time, 0 = not at all.
    static double aliveIntervalSeconds();
};

} // namespace cirrovault

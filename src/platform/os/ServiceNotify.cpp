#include "platform/os/ServiceNotify.h"

#ifdef CV_HAVE_LIBSYSTEMD
#include <systemd/sd-daemon.h>
#endif

namespace cirrovault {

#ifdef CV_HAVE_LIBSYSTEMD
void ServiceNotify::ready() { sd_notify(0, "READY=1"); }
void ServiceNotify::stopping() { sd_notify(0, "STOPPING=1"); }
void ServiceNotify::alive() { sd_notify(0, "WATCHDOG=1"); }

double ServiceNotify::aliveIntervalSeconds() {
    uint64_t usec = 0;
    if (sd_watchdog_enabled(0, &usec) <= 0)
        return 0;
    return static_cast<double>(usec) / 2e6;
}
#else
void ServiceNotify::ready() {}
void ServiceNotify::stopping() {}
void ServiceNotify::alive() {}
double ServiceNotify::aliveIntervalSeconds() { return 0; }
#endif

} // namespace cirrovault

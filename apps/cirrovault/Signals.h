#pragma once

#include <atomic>
#include <memory>

namespace cirrovault::cli {

// SIGINT and SIGTERM as requests, not deaths: long commands (backup, restore, daemon)
// install the handlers and then stop their work cleanly through the engine.
class Signals {
public:
    static void install();
    // The last signal received and not yet taken (0 when none).
    static int pending();
    static void clear();
    // Waits up to the given seconds for a signal; the signal, or 0 on time-out.
    static int wait(double seconds);
    // Turns true with the first signal: the cancel flag (CallCancel) for platform calls
    // that wait, such as systemctl.
    static std::shared_ptr<std::atomic<bool>> stopFlag();
};

} // namespace cirrovault::cli

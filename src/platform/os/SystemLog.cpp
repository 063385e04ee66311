#include "platform/os/SystemLog.h"

#include <atomic>
#include <cstdio>
#include <mutex>
#include <syslog.h>

namespace cirrovault {

namespace {
std::mutex gMutex;
std::vector<std::string> gCaptured; // guarded by gMutex
bool gCapturing = false;            // guarded by gMutex
bool gSyslogOpen = false;           // guarded by gMutex
std::atomic<bool> gVerbose{false};
std::atomic<bool> gSyslog{true};
} // namespace

void SystemLog::write(std::string_view line) {
    std::lock_guard lock(gMutex);
    if (gSyslog) {
        if (!gSyslogOpen) {
            openlog("cirrovault", LOG_PID, LOG_USER);
            gSyslogOpen = true;
        }
        syslog(priority(line), "%.*s", static_cast<int>(line.size()), line.data());
    }
    if (gVerbose)
        std::fprintf(stderr, "cirrovault: %.*s\n", static_cast<int>(line.size()), line.data());
    if (gCapturing)
        gCaptured.emplace_back(line);
}

int SystemLog::priority(std::string_view line) {
    if (line.starts_with("Error"))
        return LOG_ERR;
    if (line.starts_with("Warning"))
        return LOG_WARNING;
    return LOG_INFO;
}

void SystemLog::setVerbose(bool verbose) { gVerbose = verbose; }
bool SystemLog::isVerbose() { return gVerbose; }
void SystemLog::setSyslogEnabled(bool enabled) { gSyslog = enabled; }

void SystemLog::startCapture() {
    std::lock_guard lock(gMutex);
    gCaptured.clear();
    gCapturing = true;
}

void SystemLog::stopCapture() {
    std::lock_guard lock(gMutex);
    gCapturing = false;
}

std::vector<std::string> SystemLog::captured() {
    std::lock_guard lock(gMutex);
    return gCaptured;
}

bool SystemLog::capturedContains(std::string_view text) {
    std::lock_guard lock(gMutex);
    for (const auto& l : gCaptured)
        if (l.find(text) != std::string::npos)
            return true;
    return false;
}

size_t SystemLog::capturedCount(std::string_view line) {
    std::lock_guard lock(gMutex);
    size_t n = 0;
    for (const auto& l : gCaptured)
        if (l == line)
            ++n;
    return n;
}

} // namespace cirrovault

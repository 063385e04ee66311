#include "Signals.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace cirrovault::cli {

namespace {

std::atomic<int> lastSignal{0};
const std::shared_ptr<std::atomic<bool>> stopped = std::make_shared<std::atomic<bool>>(false);
int wakePipe[2] = {-1, -1};

extern "C" void onSignal(int signo) {
    lastSignal = signo;
    stopped->store(true);
    if (wakePipe[1] >= 0) {
        int saved = errno;
        char byte = 1;
        ssize_t ignored = write(wakePipe[1], &byte, 1);
        (void)ignored;
        errno = saved;
    }
}

} // namespace

void Signals::install() {
    if (wakePipe[0] < 0 && pipe2(wakePipe, O_CLOEXEC | O_NONBLOCK) != 0)
        wakePipe[0] = wakePipe[1] = -1;
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

int Signals::pending() {
    return lastSignal.load();
}

void Signals::clear() {
    lastSignal = 0;
    stopped->store(false);
}

std::shared_ptr<std::atomic<bool>> Signals::stopFlag() {
    return stopped;
}

int Signals::wait(double seconds) {
    if (int signo = lastSignal.load())
        return signo;
    if (wakePipe[0] < 0) {
        usleep(static_cast<useconds_t>(seconds * 1e6));
        return lastSignal.load();
    }
    pollfd fd{wakePipe[0], POLLIN, 0};
    poll(&fd, 1, static_cast<int>(seconds * 1000));
    char drain[16];
    while (read(wakePipe[0], drain, sizeof drain) > 0) {
    }
    return lastSignal.load();
}

} // namespace cirrovault::cli

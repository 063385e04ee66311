#include "platform/view/terminal/TerminalConsole.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace cirrovault {

static_assert(sizeof(termios) <= 128, "saved terminal settings do not fit");

std::mutex& TerminalConsole::lock() {
    static std::mutex mutex;
    return mutex;
}

bool TerminalConsole::isTty(int fd) {
    return ::isatty(fd) == 1;
}

bool TerminalConsole::canRedraw(int fd) {
    const char* term = std::getenv("TERM");
    const char* noColor = std::getenv("NO_COLOR");
    if (!term || !*term || std::strcmp(term, "dumb") == 0)
        return false;
    if (noColor && *noColor)
        return false;
    return isTty(fd);
}

void TerminalConsole::write(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return; // a closed terminal is not worth failing over
        done += static_cast<size_t>(n);
    }
}

std::optional<std::string> TerminalConsole::readLine(int fd) {
    // A question asked while a window holds the keys in raw mode (a Cancel confirmation)
    // would find no line and take its default at once: the answer is typed and seen as
    // a line, and the window's mode comes back afterwards.
    termios saved{};
    bool lineMode = ::tcgetattr(fd, &saved) == 0 && !(saved.c_lflag & ICANON);
    if (lineMode) {
        termios typed = saved;
        typed.c_lflag |= ICANON | ECHO | ISIG;
        ::tcsetattr(fd, TCSANOW, &typed);
    }
    std::string line;
    std::optional<std::string> answer;
    char c = 0;
    for (;;) {
        ssize_t n = ::read(fd, &c, 1);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            if (!line.empty())
                answer = line;
            break;
        }
        if (c == '\n' || c == '\r') {
            answer = line;
            break;
        }
        line.push_back(c);
    }
    if (lineMode)
        ::tcsetattr(fd, TCSANOW, &saved);
    return answer;
}

std::optional<char> TerminalConsole::readKey(int fd) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 0) <= 0 || !(p.revents & POLLIN))
        return std::nullopt;
    char c = 0;
    if (::read(fd, &c, 1) != 1)
        return std::nullopt;
    return c;
}

int TerminalConsole::columns(int fd) {
    winsize size{};
    if (::ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        return size.ws_col;
    return 80;
}

TerminalConsole::RawMode::RawMode(int fd) : fd_(fd) {
    termios current{};
    if (::tcgetattr(fd, &current) != 0)
        return;
    std::memcpy(state_, &current, sizeof(current));
    saved_ = true;
    termios raw = current;
    raw.c_lflag &= static_cast<tcflag_t>(~(ICANON | ECHO | ISIG));
    raw.c_cc[VMIN] = 0;
    raw.c_cc[VTIME] = 0;
    ::tcsetattr(fd, TCSANOW, &raw);
}

TerminalConsole::RawMode::~RawMode() {
    if (!saved_)
        return;
    termios previous{};
    std::memcpy(&previous, state_, sizeof(previous));
    ::tcsetattr(fd_, TCSANOW, &previous);
}

} // namespace cirrovault

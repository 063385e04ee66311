#pragma once

#include <mutex>
#include <optional>
#include <string>

namespace cirrovault {

// The terminal shared by the window back end and the message-box prompts: one of them
// owns the screen and keyboard at a time (lock()), and each restores the terminal's
// mode when done.
class TerminalConsole {
public:
    static std::mutex& lock();
    static bool isTty(int fd);
    // Whether screens may be redrawn in place with escape sequences: a terminal that
    // understands them (TERM set and not "dumb") and a user who did not ask for plain
    // output (NO_COLOR set to anything but "").
    static bool canRedraw(int fd);
    static void write(int fd, const std::string& text);
    // A line typed by the user (echoed, edited by the terminal); nullopt at end of input.
    static std::optional<std::string> readLine(int fd);
    // Up to one waiting key, without blocking; nullopt when none.
    static std::optional<char> readKey(int fd);
    static int columns(int fd); // 80 when unknown

    // Raw keys (no echo, no line editing, Ctrl-C as a key) for the life of the object.
    class RawMode {
    public:
        explicit RawMode(int fd);
        ~RawMode();
        RawMode(const RawMode&) = delete;
        RawMode& operator=(const RawMode&) = delete;

    private:
        int fd_;
        bool saved_ = false;
        unsigned char state_[128]; // the saved terminal settings
    };
};

} // namespace cirrovault

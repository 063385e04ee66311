#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/view/ViewBackend.h"
#include "platform/view/terminal/TerminalConsole.h"

namespace cirrovault {

// Windows for a person at a terminal, drawn on stderr and redrawn in place: a spinner
// and message for the wait dialog, scan totals, a retry countdown, and a bar with
// counts, rate and time left for progress windows, the wizard's first step, and the
// folder browser as a list to move through. Keys: r = Retry, c or Ctrl-C = Cancel; in
// the browser arrows or j/k move, Enter opens, Backspace goes up, Space ticks, q ends;
// in the wizard 1-3 choose the type, d the weekday, +/- the time, n Next, b Back. Without a
// terminal, or on one that must not be redrawn (TERM=dumb, NO_COLOR), it prints plain lines
// instead, and a page that waits for the user (the retry countdown) is answered at once
// with the configured button, so nothing ever waits for a person who is not there; so
// are the browser (Done, with the ticks it has) and the wizard step (Next, with the
// values the host filled in).
class TerminalViewBackend : public ViewBackend {
public:
    struct Options {
        int inputFd = 0;
        int outputFd = 2;
        std::string retryPageDefault = "Cancel"; // "" = press nothing
    };

    TerminalViewBackend();
    explicit TerminalViewBackend(Options options);

    static constexpr const char* KeyUp = "<up>";
    static constexpr const char* KeyDown = "<down>";
    static constexpr const char* KeyLeft = "<left>";
    static constexpr const char* KeyRight = "<right>";

    bool interactive() const { return interactive_; }
    // The lines a window shows now (what a redraw writes), one per screen row.
    static std::vector<std::string> render(const ViewWindow& window, int spinnerFrame);

protected:
    void modalStarted(ViewWindow& window) override;
    void modalTick(ViewWindow& window) override;
    void modalEnded(ViewWindow& window) override;
    void changedOn(ViewWindow& window, const std::string& outlet, const std::string& text) override;
    double tickSeconds() const override { return 0.1; }

private:
    struct Screen {
        std::unique_ptr<TerminalConsole::RawMode> raw;
        int lines = 0;
        int frame = 0;
        unsigned long drawnRevision = 0;
        std::chrono::steady_clock::time_point drawnAt;
    };

    void draw(ViewWindow& window, Screen& screen);
    void handleKey(ViewWindow& window, char key);
    void handleKey(ViewWindow& window, const std::string& key);
    void handleBrowserKey(ViewWindow& window, const std::string& key);
    void handleStepKey(ViewWindow& window, const std::string& key);
    // Every key waiting, arrow keys as KeyUp, KeyDown, KeyLeft, KeyRight.
    std::vector<std::string> readKeys();
    // Lists moved by keys: redrawn at once after a key.
    static bool isNavigable(const ViewWindow& window);
    void printPlain(ViewWindow& window, const std::string& outlet, const std::string& text);

    const Options options_;
    const bool interactive_;
    std::mutex mutex_;
    std::map<const ViewWindow*, Screen> screens_;                              // guarded by mutex_
    std::map<const ViewWindow*, std::chrono::steady_clock::time_point> plain_; // guarded by mutex_
};

} // namespace cirrovault

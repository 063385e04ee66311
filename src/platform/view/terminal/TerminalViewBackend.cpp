#include "platform/view/terminal/TerminalViewBackend.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>

#include "platform/os/Calendar.h"
#include "platform/view/ViewLayout.h"

namespace cirrovault {

namespace {

constexpr const char* SpinnerFrames = "|/-\\";

std::string bar(double percent, int width) {
    if (percent < 0)
        percent = 0;
    if (percent > 100)
        percent = 100;
    int filled = static_cast<int>(std::lround(percent * width / 100.0));
    return "[" + std::string(filled, '#') + std::string(width - filled, '.') + "]";
}

std::string fit(const std::string& line, int columns) {
    return static_cast<int>(line.size()) < columns ? line : line.substr(0, columns - 1);
}

bool isLoopRetryPage(const ViewWindow& window) {
    return window.layout() == ViewLayout::LoopDialog && window.selectedTab() == 2;
}

// Rows of a browser shown at once; the list scrolls to keep the highlighted row in view.
constexpr int BrowserRows = 15;

void renderBrowser(const ViewWindow& window, std::vector<std::string>& lines) {
    using namespace ViewOutlet;
    std::vector<std::string> rows = window.items(Rows);
    int count = static_cast<int>(rows.size());
    int cursor = std::clamp(static_cast<int>(window.value(Cursor)), 0, std::max(count - 1, 0));
    int first = std::clamp(cursor - BrowserRows / 2, 0, std::max(count - BrowserRows, 0));
    int last = std::min(count, first + BrowserRows);
    lines.push_back(window.text(Title));
    lines.push_back("  " + window.text(CurrentPath));
    if (!window.text(Status).empty())
        lines.push_back("  " + window.text(Status));
    lines.push_back(first > 0 ? "  ..." : "");
    for (int i = first; i < last; ++i)
        lines.push_back((i == cursor ? "> " : "  ") + rows[static_cast<size_t>(i)]);
    lines.push_back(last < count ? "  ..." : "");
    lines.push_back("  [arrows j/k] move  [Enter] open  [Backspace] up  [Space] tick  [q] done");
}

void renderStep(const ViewWindow& window, std::vector<std::string>& lines) {
    using namespace ViewOutlet;
    int type = static_cast<int>(window.value(BackupTypeMatrixRadio));
    auto radio = [type](int tag, const char* label) {
        return fmt::format("({}) {}", type == tag ? '*' : ' ', label);
    };
    std::vector<std::string> days = window.items(DaysPopupButton);
    size_t day = static_cast<size_t>(window.value(DaysPopupButton));
    DateComponents time = Calendar::components(Date(window.value(BackupDate)));
    lines.push_back(window.text(Title));
    lines.push_back("  Name:        " + window.text(TaskName));
    lines.push_back("  Description: " + window.text(TaskDescription));
    lines.push_back("  [1-3] " + radio(1, "daily") + "  " + radio(2, "weekly") + "  " + radio(3, "once"));
    if (window.isEnabled(DaysPopupButton) && day < days.size())
        lines.push_back("  [d] Day:     " + days[day]);
    lines.push_back(fmt::format("  [+/-] Time:  {:04}-{:02}-{:02} {:02}:{:02}", time.year, time.month,
                                time.day, time.hour, time.minute));
    lines.push_back("  [n] Next   [b] Back");
}

} // namespace

TerminalViewBackend::TerminalViewBackend() : TerminalViewBackend(Options{}) {}

TerminalViewBackend::TerminalViewBackend(Options options)
    : options_(std::move(options)),
      interactive_(TerminalConsole::isTty(options_.inputFd) && TerminalConsole::canRedraw(options_.outputFd)) {}

std::vector<std::string> TerminalViewBackend::render(const ViewWindow& window, int spinnerFrame) {
    using namespace ViewOutlet;
    std::vector<std::string> lines;
    const std::string& layout = window.layout();
    std::string spin(1, SpinnerFrames[spinnerFrame % 4]);
    if (layout == ViewLayout::LoopDialog) {
        switch (window.selectedTab()) {
        case 1:
            lines.push_back(spin + " " + window.text(ScanFileStr));
            lines.push_back("  " + window.text(TotalSourceFilePath));
            lines.push_back(fmt::format("  {}  {} files", window.text(TotalSourceSize),
                                        window.text(TotalFilesCount)));
            lines.push_back("  [c] Cancel");
            break;
        case 2:
            lines.push_back("! " + window.text(RetryLogonStr));
            lines.push_back("  [r] Retry   [c] Cancel");
            break;
        default:
            lines.push_back(spin + " " + window.text(LogOnStr) + "   [c] Cancel");
            break;
        }
    } else if (layout == ViewLayout::ProgressWindow) {
        lines.push_back(window.text(Title));
        lines.push_back("  " + window.text(Message));
        lines.push_back(fmt::format("  {} {:3.0f}%", bar(window.value(Bar), 30), window.value(Bar)));
        lines.push_back(fmt::format("  {} {}   {} {}", window.text(TotalLabel), window.text(Total),
                                    window.text(LeftLabel), window.text(Left)));
        lines.push_back(fmt::format("  {} {}   [c] Cancel", window.text(TimeLeftLabel), window.text(TimeLeft)));
    } else if (layout == ViewLayout::DownloadProgressWindow) {
        lines.push_back(window.text(Title) + ": " + window.text(DownPath));
        lines.push_back("  " + window.text(RestoringFile));
        lines.push_back(fmt::format("  {} {:3.0f}%  {}  {} left   [c] Cancel",
                                    bar(window.value(FilePrgBar), 30), window.value(FilePrgBar),
                                    window.text(TransferRate), window.text(TimeLeft)));
    } else if (layout == ViewLayout::FilePathBrowser) {
        renderBrowser(window, lines);
    } else if (layout == ViewLayout::CreateTaskStep1) {
        renderStep(window, lines);
    } else {
        lines.push_back(window.text(Title));
    }
    return lines;
}

void TerminalViewBackend::modalStarted(ViewWindow& window) {
    if (!interactive_) {
        if (isLoopRetryPage(window) && !options_.retryPageDefault.empty())
            window.press(options_.retryPageDefault);
        // Windows that only a person could fill take what they were given and end.
        if (window.layout() == ViewLayout::FilePathBrowser || window.layout() == ViewLayout::CreateTaskStep1) {
            window.press(window.layout() == ViewLayout::FilePathBrowser ? ViewButton::Done : ViewButton::Next);
            abortModal(window);
        }
        return;
    }
    std::lock_guard console(TerminalConsole::lock());
    std::lock_guard lock(mutex_);
    Screen& screen = screens_[&window];
    screen.raw = std::make_unique<TerminalConsole::RawMode>(options_.inputFd);
    TerminalConsole::write(options_.outputFd, "\033[?25l"); // hide the cursor while drawing
    draw(window, screen);
}

void TerminalViewBackend::modalTick(ViewWindow& window) {
    if (!interactive_)
        return;
    std::vector<std::string> keys;
    {
        // A prompt owns the terminal meanwhile: neither read its keys nor draw over it.
        std::unique_lock console(TerminalConsole::lock(), std::try_to_lock);
        if (!console.owns_lock())
            return;
        keys = readKeys();
        std::lock_guard lock(mutex_);
        Screen& screen = screens_[&window];
        ++screen.frame;
        auto now = std::chrono::steady_clock::now();
        bool spinner = window.layout() == ViewLayout::LoopDialog && window.selectedTab() != 2;
        if (spinner || (window.revision() != screen.drawnRevision &&
                        now - screen.drawnAt >= std::chrono::seconds(1)))
            draw(window, screen);
    }
    // The action may prompt, so the console is free again.
    for (const std::string& key : keys)
        handleKey(window, key);
    if (!keys.empty() && isNavigable(window)) {
        // Keys move a list: show the result at once rather than at the next second.
        std::unique_lock console(TerminalConsole::lock(), std::try_to_lock);
        if (!console.owns_lock())
            return;
        std::lock_guard lock(mutex_);
        auto found = screens_.find(&window);
        if (found != screens_.end() && window.revision() != found->second.drawnRevision)
            draw(window, found->second);
    }
}

std::vector<std::string> TerminalViewBackend::readKeys() {
    std::vector<std::string> keys;
    while (auto key = TerminalConsole::readKey(options_.inputFd)) {
        if (*key != '\033') {
            keys.emplace_back(1, *key);
            continue;
        }
        // An arrow key arrives as ESC [ A..D, all three bytes together.
        auto bracket = TerminalConsole::readKey(options_.inputFd);
        if (bracket && *bracket != '[' && *bracket != 'O') {
            // Escape on its own, then an ordinary key typed right after it.
            keys.emplace_back(1, '\033');
            keys.emplace_back(1, *bracket);
            continue;
        }
        auto code = bracket ? TerminalConsole::readKey(options_.inputFd) : std::nullopt;
        if (code == 'A')
            keys.emplace_back(KeyUp);
        else if (code == 'B')
            keys.emplace_back(KeyDown);
        else if (code == 'C')
            keys.emplace_back(KeyRight);
        else if (code == 'D')
            keys.emplace_back(KeyLeft);
        else
            keys.emplace_back(1, '\033');
    }
    return keys;
}

void TerminalViewBackend::handleKey(ViewWindow& window, const std::string& key) {
    if (window.layout() == ViewLayout::FilePathBrowser) {
        handleBrowserKey(window, key);
        return;
    }
    if (window.layout() == ViewLayout::CreateTaskStep1) {
        handleStepKey(window, key);
        return;
    }
    if (key.size() != 1)
        return;
    handleKey(window, key[0]);
}

bool TerminalViewBackend::isNavigable(const ViewWindow& window) {
    return window.layout() == ViewLayout::FilePathBrowser || window.layout() == ViewLayout::CreateTaskStep1;
}

void TerminalViewBackend::handleKey(ViewWindow& window, char key) {
    if (key == 'c' || key == 'C' || key == 3)
        window.press(ViewButton::Cancel);
    else if ((key == 'r' || key == 'R') && isLoopRetryPage(window))
        window.press(ViewButton::Retry);
}

void TerminalViewBackend::handleBrowserKey(ViewWindow& window, const std::string& key) {
    using namespace ViewButton;
    if (key == KeyUp || key == "k")
        window.press(Up);
    else if (key == KeyDown || key == "j")
        window.press(Down);
    else if (key == "\n" || key == "\r" || key == KeyRight || key == "l")
        window.press(Open);
    else if (key == "\x7f" || key == "\b" || key == KeyLeft || key == "h")
        window.press(Parent);
    else if (key == " ")
        window.press(Tick);
    else if (key == "q" || key == "Q" || key == "\033" || key == "\x03")
        window.press(Done);
}

void TerminalViewBackend::handleStepKey(ViewWindow& window, const std::string& key) {
    using namespace ViewOutlet;
    if (key == "n" || key == "N" || key == "\n" || key == "\r") {
        window.press(ViewButton::Next);
    } else if (key == "b" || key == "B" || key == "\033" || key == "\x03") {
        window.press(ViewButton::Back);
    } else if (key == "1" || key == "2" || key == "3") {
        window.setValue(BackupTypeMatrixRadio, key[0] - '0');
        window.press(BackupTypeMatrixRadio);
    } else if ((key == "d" || key == "D") && window.isEnabled(DaysPopupButton)) {
        size_t count = window.items(DaysPopupButton).size();
        if (count > 0)
            window.setValue(DaysPopupButton,
                            static_cast<double>((static_cast<size_t>(window.value(DaysPopupButton)) + 1) % count));
    } else if (key == "+" || key == "-") {
        // The time picker in steps of a quarter of an hour.
        window.setValue(BackupDate, window.value(BackupDate) + (key == "+" ? 900 : -900));
    }
}

void TerminalViewBackend::draw(ViewWindow& window, Screen& screen) {
    int columns = TerminalConsole::columns(options_.outputFd);
    std::string out;
    if (screen.lines > 0)
        out += fmt::format("\033[{}F", screen.lines); // back to the first line drawn
    std::vector<std::string> lines = render(window, screen.frame);
    for (const std::string& line : lines)
        out += "\033[2K" + fit(line, columns) + "\n";
    for (int extra = static_cast<int>(lines.size()); extra < screen.lines; ++extra)
        out += "\033[2K\n";
    if (screen.lines > static_cast<int>(lines.size()))
        out += fmt::format("\033[{}F", screen.lines - static_cast<int>(lines.size()));
    screen.lines = static_cast<int>(lines.size());
    screen.drawnRevision = window.revision();
    screen.drawnAt = std::chrono::steady_clock::now();
    TerminalConsole::write(options_.outputFd, out);
}

void TerminalViewBackend::modalEnded(ViewWindow& window) {
    if (!interactive_)
        return;
    std::lock_guard console(TerminalConsole::lock());
    std::lock_guard lock(mutex_);
    auto found = screens_.find(&window);
    if (found == screens_.end())
        return;
    draw(window, found->second); // the last figures stay on screen
    TerminalConsole::write(options_.outputFd, "\033[?25h");
    screens_.erase(found); // restores the terminal's mode
}

void TerminalViewBackend::changedOn(ViewWindow& window, const std::string& outlet,
                                    const std::string& text) {
    if (interactive_)
        return;
    printPlain(window, outlet, text);
    if (outlet == "tab" && isLoopRetryPage(window) && !options_.retryPageDefault.empty() &&
        modalWindow().get() == &window)
        window.press(options_.retryPageDefault);
}

void TerminalViewBackend::printPlain(ViewWindow& window, const std::string& outlet,
                                     const std::string& text) {
    using namespace ViewOutlet;
    bool message = outlet == LogOnStr || outlet == RetryLogonStr || outlet == Message ||
                   outlet == RestoringFile;
    bool figures = outlet == TotalSourceFilePath || outlet == Left || outlet == TimeLeft;
    if (text.empty() || (!message && !figures))
        return;
    if (figures) {
        // Running figures at most once a second, so a log stays readable.
        std::lock_guard lock(mutex_);
        auto now = std::chrono::steady_clock::now();
        auto& last = plain_[&window];
        if (now - last < std::chrono::seconds(1))
            return;
        last = now;
    }
    std::string line;
    if (outlet == TotalSourceFilePath)
        line = fmt::format("{} {} ({}, {} files)", window.text(ScanFileStr), text,
                           window.text(TotalSourceSize), window.text(TotalFilesCount));
    else if (outlet == Left || outlet == TimeLeft)
        line = fmt::format("{:.0f}% {} {} {} {}", window.value(Bar), window.text(LeftLabel),
                           window.text(Left), window.text(TimeLeftLabel), window.text(TimeLeft));
    else
        line = text;
    TerminalConsole::write(options_.outputFd, line + "\n");
}

} // namespace cirrovault

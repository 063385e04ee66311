#include "platform/view/terminal/TerminalViewBackend.h"

#include <cmath>
#include <fmt/format.h>

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

} // namespace

TerminalViewBackend::TerminalViewBackend() : TerminalViewBackend(Options{}) {}

TerminalViewBackend::TerminalViewBackend(Options options)
    : options_(std::move(options)),
      interactive_(TerminalConsole::isTty(options_.inputFd) && TerminalConsole::isTty(options_.outputFd)) {}

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
    } else {
        lines.push_back(window.text(Title));
    }
    return lines;
}

void TerminalViewBackend::modalStarted(ViewWindow& window) {
    if (!interactive_) {
        if (isLoopRetryPage(window) && !options_.retryPageDefault.empty())
            window.press(options_.retryPageDefault);
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
    std::optional<char> key;
    {
        // A prompt owns the terminal meanwhile: neither read its keys nor draw over it.
        std::unique_lock console(TerminalConsole::lock(), std::try_to_lock);
        if (!console.owns_lock())
            return;
        key = TerminalConsole::readKey(options_.inputFd);
        std::lock_guard lock(mutex_);
        Screen& screen = screens_[&window];
        ++screen.frame;
        auto now = std::chrono::steady_clock::now();
        bool spinner = window.layout() == ViewLayout::LoopDialog && window.selectedTab() != 2;
        if (spinner || (window.revision() != screen.drawnRevision &&
                        now - screen.drawnAt >= std::chrono::seconds(1)))
            draw(window, screen);
    }
    if (key)
        handleKey(window, *key); // the action may prompt, so the console is free again
}

void TerminalViewBackend::handleKey(ViewWindow& window, char key) {
    if (key == 'c' || key == 'C' || key == 3)
        window.press(ViewButton::Cancel);
    else if ((key == 'r' || key == 'R') && isLoopRetryPage(window))
        window.press(ViewButton::Retry);
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

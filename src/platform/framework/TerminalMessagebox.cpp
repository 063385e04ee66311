#include "platform/framework/TerminalMessagebox.h"

#include <cctype>
#include <exception>
#include <optional>

#include "platform/os/SystemLog.h"
#include "platform/view/terminal/TerminalConsole.h"

namespace cirrovault {

namespace {

std::string choicesText(int style) {
    switch (style) {
    case MessageboxStyle::TryAgainOrGiveUp: return "[t]ry again / [g]ive up";
    case MessageboxStyle::YesNo: return "[y]es / [n]o";
    case MessageboxStyle::RetryCancel: return "[r]etry / [c]ancel";
    default: return "press Enter";
    }
}

std::optional<int> answerFor(int style, char key) {
    key = static_cast<char>(std::tolower(static_cast<unsigned char>(key)));
    switch (style) {
    case MessageboxStyle::TryAgainOrGiveUp:
        if (key == 't') return MessageboxAnswer::TryAgain;
        if (key == 'g') return MessageboxAnswer::GiveUp;
        return std::nullopt;
    case MessageboxStyle::YesNo:
        if (key == 'y') return MessageboxAnswer::Yes;
        if (key == 'n') return MessageboxAnswer::No;
        return std::nullopt;
    case MessageboxStyle::RetryCancel:
        if (key == 'r') return MessageboxAnswer::Retry;
        if (key == 'c') return MessageboxAnswer::Cancel;
        return std::nullopt;
    default: return MessageboxAnswer::Ok;
    }
}

} // namespace

TerminalMessagebox::TerminalMessagebox(int inputFd, int outputFd)
    : inputFd_(inputFd), outputFd_(outputFd) {}

bool TerminalMessagebox::interactive() const {
    return TerminalConsole::isTty(inputFd_) && TerminalConsole::isTty(outputFd_);
}

int TerminalMessagebox::showMessage(const std::string& title, const std::string& informativeText,
                                    int messageboxStyle) {
    try {
        std::lock_guard console(TerminalConsole::lock());
        std::string heading = title.empty() ? informativeText : title + ": " + informativeText;
        if (interactive()) {
            for (;;) {
                TerminalConsole::write(outputFd_, "\n" + heading + "\n  " + choicesText(messageboxStyle) + " > ");
                std::optional<std::string> line = TerminalConsole::readLine(inputFd_);
                if (!line)
                    break; // end of input: fall back to the default
                std::optional<int> answer =
                    answerFor(messageboxStyle, line->empty() ? '\0' : line->front());
                if (answer)
                    return *answer;
            }
        }
        int answer = fallback_->showMessage(title, informativeText, messageboxStyle);
        TerminalConsole::write(outputFd_, heading + " (answered " + std::to_string(answer) + ")\n");
        return answer;
    } catch (const std::exception&) {
        SystemLog::write("Error: TerminalMessagebox::showMessage");
        return HeadlessMessagebox::defaultAnswerForStyle(messageboxStyle);
    }
}

int TerminalMessagebox::showStorageOrder(const std::string& title, const std::string& message,
                                         bool& checkBox, int dialogStyle) {
    try {
        std::lock_guard console(TerminalConsole::lock());
        if (interactive()) {
            TerminalConsole::write(outputFd_, "\n" + title + ": " + message +
                                                  "\n  [o]rder more space / [n]ot now / [d]on't ask again > ");
            if (std::optional<std::string> line = TerminalConsole::readLine(inputFd_)) {
                char key = line->empty() ? '\0' : static_cast<char>(std::tolower(static_cast<unsigned char>(line->front())));
                if (key == 'o')
                    return MessageboxAnswer::OrderSpace;
                if (key == 'd')
                    checkBox = true;
                return 0;
            }
        }
        TerminalConsole::write(outputFd_, title + ": " + message + "\n");
        return fallback_->showStorageOrder(title, message, checkBox, dialogStyle);
    } catch (const std::exception&) {
        SystemLog::write("Error: TerminalMessagebox::showStorageOrder");
        return 0;
    }
}

std::string TerminalMessagebox::chooseFolder(const std::string& title) {
    try {
        std::lock_guard console(TerminalConsole::lock());
        if (interactive()) {
            TerminalConsole::write(outputFd_, "\n" + title + "\n  folder (empty to cancel) > ");
            if (std::optional<std::string> line = TerminalConsole::readLine(inputFd_))
                return *line;
        }
        return fallback_->chooseFolder(title);
    } catch (const std::exception&) {
        SystemLog::write("Error: TerminalMessagebox::chooseFolder");
        return "";
    }
}

} // namespace cirrovault

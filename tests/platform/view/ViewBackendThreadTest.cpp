#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/framework/TerminalMessagebox.h"
#include "platform/os/Thread.h"
#include "platform/view/ViewLayout.h"
#include "platform/view/headless/HeadlessViewBackend.h"
#include "platform/view/terminal/TerminalViewBackend.h"
#include "common/ScopedEnv.h"
#include "common/TempHome.h"
#include "platform/os/FileSystem.h"

using namespace cirrovault;

TEST(ViewBackendThread, ModalLoopsNestAndEndFromOtherThreadsAndScriptedPressesFireOnce) {
    HeadlessViewBackend backend;
    auto outer = backend.createWindow(ViewLayout::ProgressWindow);
    auto inner = backend.createWindow(ViewLayout::LoopDialog);
    std::shared_ptr<ViewWindow> seenInner, seenOuter;
    Thread other([&] {
        ASSERT_TRUE(backend.waitUntilModal(*inner));
        seenInner = backend.modalWindow();
        backend.abortModal(*inner);
        ASSERT_TRUE(backend.waitUntilModal(*outer));
        seenOuter = backend.modalWindow();
        outer->close(); // closing ends a window's loop too
    });
    outer->setAction(ViewEvent::Shown, [&] {
        other.start();
        backend.runModal(inner);
    });
    backend.runModal(outer);
    other.join();
    EXPECT_EQ(std::make_tuple(seenInner, seenOuter, backend.modalWindow()),
              std::make_tuple(inner, outer, std::shared_ptr<ViewWindow>()));
    backend.runModal(outer); // a closed window never runs modally, and no one waits for it
    EXPECT_FALSE(backend.waitUntilModal(*outer));

    backend.pressAfterTexts(ViewLayout::LoopDialog, ViewOutlet::LogOnStr, 2, ViewButton::Cancel);
    backend.pressWhenText(ViewLayout::LoopDialog, ViewOutlet::RetryLogonStr, "30", ViewButton::Retry);
    auto window = backend.createWindow(ViewLayout::LoopDialog);
    auto progress = backend.createWindow(ViewLayout::ProgressWindow);
    progress->setText(ViewOutlet::LogOnStr, "a"); // another layout does not count
    window->setText(ViewOutlet::LogOnStr, "a");
    EXPECT_EQ(window->pressCount(ViewButton::Cancel), 0);
    for (const char* text : {"b", "c"})
        window->setText(ViewOutlet::LogOnStr, text);
    for (const char* text : {"in 31", "in 30", "in 30"})
        window->setText(ViewOutlet::RetryLogonStr, text);
    EXPECT_EQ(std::make_pair(window->pressCount(ViewButton::Cancel),
                             window->pressCount(ViewButton::Retry)),
              std::make_pair(1, 1));
    EXPECT_EQ(backend.textsOf(ViewLayout::LoopDialog, ViewOutlet::LogOnStr),
              (std::vector<std::string>{"a", "b", "c"}));
}

// No terminal: keys from a pipe nobody writes to, output to a file (stderr redirected).
TEST(TerminalBackendThread, WithoutTerminalPrintsLinesAndAnswersDefaults) {
    test::TempHome home;
    int keys[2] = {-1, -1};
    int out = ::open(home.file("log").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(::pipe(keys), 0);
    TerminalViewBackend backend({keys[0], out, ViewButton::Cancel});
    EXPECT_FALSE(backend.interactive());
    auto window = backend.createWindow(ViewLayout::LoopDialog);
    bool cancelled = false;
    window->setAction(ViewButton::Cancel, [&] { cancelled = true; });
    Thread worker([&] {
        backend.waitUntilModal(*window);
        window->setText(ViewOutlet::LogOnStr, "Signing in...");
        window->selectTab(2); // nobody can answer: the default button is pressed at once
        window->setText(ViewOutlet::RetryLogonStr, "Trying again in 59 seconds");
        backend.abortModal(*window);
    });
    window->setAction(ViewEvent::Shown, [&] { worker.start(); });
    backend.runModal(window);
    worker.join();
    EXPECT_TRUE(cancelled);

    // A question nobody can answer takes the default set for its style.
    TerminalMessagebox box(keys[0], out);
    box.defaults().setDefaultAnswer(MessageboxStyle::RetryCancel, MessageboxAnswer::Retry);
    EXPECT_EQ(std::make_pair(box.showMessage("", "Delete it?", MessageboxStyle::YesNo),
                             box.showMessage("", "Again?", MessageboxStyle::RetryCancel)),
              std::make_pair(MessageboxAnswer::No, MessageboxAnswer::Retry));
    EXPECT_EQ(box.chooseFolder("Where?"), "");
    std::string printed = FileSystem::readFile(home.file("log")).value_or("");
    for (const char* line :
         {"Signing in...\n", "Trying again in 59 seconds\n", "Delete it? (answered 4)"})
        EXPECT_NE(printed.find(line), std::string::npos) << line;
    EXPECT_EQ(printed.find('\033'), std::string::npos); // no drawing codes in a log
    for (int fd : {keys[0], keys[1], out})
        ::close(fd);
}

// Cancel's confirmation, asked while the keys are raw, waits for a typed line; TERM=dumb or
// NO_COLOR get plain lines.
TEST(TerminalBackendThread, PseudoTerminalKeysPressButtonsAndAQuestionWaitsForItsAnswerUnlessDumb) {
    // The program's side (slave) and the user's (master), which the typist polls.
    int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK);
    ASSERT_TRUE(master >= 0 && ::grantpt(master) == 0 && ::unlockpt(master) == 0);
    int slave = ::open(::ptsname(master), O_RDWR | O_NOCTTY);
    ASSERT_GE(slave, 0);
    struct Case {
        std::optional<std::string> term, noColor;
        bool redraw;
    };
    for (const Case& c : {Case{"xterm", std::nullopt, true}, Case{"xterm", "", true},
                          Case{"dumb", std::nullopt, false},
                          Case{std::nullopt, std::nullopt, false}, Case{"xterm", "1", false}}) {
        test::ScopedEnv term("TERM", c.term), color("NO_COLOR", c.noColor);
        TerminalViewBackend backend({slave, slave, ViewButton::Cancel});
        EXPECT_TRUE(TerminalConsole::canRedraw(slave) == c.redraw &&
                    backend.interactive() == c.redraw)
            << c.term.value_or("(unset)");
    }
    EXPECT_FALSE(TerminalConsole::canRedraw(master + 1000)); // not a terminal at all

    test::ScopedEnv term("TERM", "xterm"), color("NO_COLOR", std::nullopt);
    TerminalViewBackend backend({slave, slave, ViewButton::Cancel});
    EXPECT_TRUE(backend.interactive());
    TerminalMessagebox box(slave, slave);
    auto window = backend.createWindow(ViewLayout::LoopDialog);
    window->selectTab(2);
    int answer = 0;
    window->setAction(ViewButton::Retry, [&] { ::write(master, "c", 1); });
    window->setAction(ViewButton::Cancel, [&] {
        answer = box.showMessage("", "Stop restoring?", MessageboxStyle::YesNo);
        backend.abortModal(*window);
    });
    window->setAction(ViewEvent::Shown, [&] { ::write(master, "xr", 2); });
    std::string seen;
    Thread typist([&] {
        char buffer[512];
        for (int i = 0; i < 500 && seen.find("Stop restoring?") == std::string::npos; ++i) {
            ::usleep(10000);
            ssize_t n = ::read(master, buffer, sizeof buffer);
            if (n > 0)
                seen.append(buffer, static_cast<size_t>(n));
        }
        ::write(master, "y\n", 2);
    });
    typist.start();
    backend.runModal(window); // r presses Retry, whose action types c: Cancel asks, y ends it
    typist.join();
    EXPECT_EQ(std::make_tuple(window->pressCount(ViewButton::Retry),
                              window->pressCount(ViewButton::Cancel), answer),
              std::make_tuple(1, 1, int{MessageboxAnswer::Yes}));
    EXPECT_NE(seen.find("[r] Retry"), std::string::npos);
    ::close(slave);
    ::close(master);
}

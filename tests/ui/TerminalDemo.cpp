#include <chrono>
#include <cstdlib>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "platform/view/terminal/TerminalViewBackend.h"
#include "ui/LoopDlgController.h"
#include "ui/ProgressBarController.h"

namespace cirrovault {
namespace {

// Not a check: shows the terminal dialogs to a person (and to the recording in docs/).
// Runs only with CIRROVAULT_TERMINAL_DEMO set, at a terminal.
TEST(TerminalDemo, WaitDialogThenProgressWindow) {
    if (!std::getenv("CIRROVAULT_TERMINAL_DEMO"))
        GTEST_SKIP() << "set CIRROVAULT_TERMINAL_DEMO to watch the terminal dialogs";
    auto backend = std::make_shared<TerminalViewBackend>();
    LoopDlgController loop(backend, false);
    Thread* self = nullptr;
    Thread logon([&] {
        loop.SetLoopMessage(self, "Signing in to Cirrovault Online Backup...");
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        loop.LeaveLoopMode(self);
    });
    self = &logon;
    loop.EnterLoopMode(&logon, CLoopItem::ButtonCancel);
    logon.join();

    ProgressBarController progress(backend);
    Thread* worker = nullptr;
    Thread deletion([&] {
        auto info = progress.getProgressInfo(worker);
        progress.SetProgressMessage(worker, "Deleting task \"Photos\" from the service");
        info->setTotalFiles(240);
        info->setTotalFolders(12);
        info->setTotalSize(120u << 20);
        for (int i = 1; i <= 30 && !progress.IsCancelProgressModel(worker); ++i) {
            info->setDoneFiles(i * 4);
            info->setSentSize(static_cast<uint64_t>(i) * (4u << 20));
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        progress.LeaveProgressModel(worker);
    });
    worker = &deletion;
    progress.EnterProgressMode(&deletion);
    deletion.join();
}

} // namespace
} // namespace cirrovault

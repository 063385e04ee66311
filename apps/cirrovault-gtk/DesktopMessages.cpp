#include "DesktopMessages.h"

#include <chrono>
#include <functional>
#include <future>
#include <memory>

#include "GtkDialogs.h"
#include "platform/os/SystemLog.h"

namespace cirrovault::desktop {

namespace {

// Runs the dialog on the main thread and waits for it from a worker, within a bound.
template <typename T>
T onMainThread(std::function<T()> dialog, T neutral) {
    if (g_main_context_is_owner(nullptr))
        return dialog();
    auto job = std::make_shared<std::packaged_task<T()>>(std::move(dialog));
    std::future<T> answer = job->get_future();
    auto* held = new std::shared_ptr<std::packaged_task<T()>>(job);
    g_main_context_invoke_full(
        nullptr, G_PRIORITY_DEFAULT,
        +[](gpointer data) -> gboolean {
            (**static_cast<std::shared_ptr<std::packaged_task<T()>>*>(data))();
            return G_SOURCE_REMOVE;
        },
        held, +[](gpointer data) { delete static_cast<std::shared_ptr<std::packaged_task<T()>>*>(data); });
    constexpr auto kLimit = std::chrono::minutes(10);
    auto until = std::chrono::steady_clock::now() + kLimit;
    while (answer.wait_for(std::chrono::milliseconds(200)) != std::future_status::ready) {
        if (GtkDialogs::quitting || std::chrono::steady_clock::now() > until) {
            SystemLog::write("Error: a message box was not answered; the neutral answer is taken");
            return neutral;
        }
    }
    return answer.get();
}

} // namespace

int DesktopMessages::showMessage(const std::string& title, const std::string& informativeText, int messageboxStyle) {
    std::string shown = informativeText.empty() ? title : informativeText;
    std::string heading = informativeText.empty() ? std::string("Cirrovault") : title;
    GtkWindow* parent = parent_;
    return onMainThread<int>([=] { return GtkDialogs::message(parent, heading, shown, messageboxStyle); },
                             GtkDialogs::neutralAnswer(messageboxStyle));
}

int DesktopMessages::showStorageOrder(const std::string& title, const std::string& message, bool& checkBox,
                                      int dialogStyle) {
    (void)checkBox;
    return showMessage(title, message, dialogStyle);
}

std::string DesktopMessages::chooseFolder(const std::string& title) {
    GtkWindow* parent = parent_;
    return onMainThread<std::string>([=] { return GtkDialogs::chooseFolder(parent, title); }, std::string());
}

} // namespace cirrovault::desktop

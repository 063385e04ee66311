#pragma once

#include <gtk/gtk.h>

#include <atomic>
#include <optional>
#include <string>
#include <vector>

namespace cirrovault::desktop {

// Small modal dialogs of the desktop host. Each runs a nested main loop on the GTK main
// thread until it is answered, closed, or the application is quitting.
class GtkDialogs {
public:
    // The application is quitting (SIGTERM, SIGINT, the last window closed): every open
    // dialog ends with its neutral answer.
    static std::atomic<bool> quitting;

    // The answer of a box of the style that nobody answered: the one that changes nothing.
    static int neutralAnswer(int style);
    // A message with the buttons of the style (MessageboxStyle); answers a
    // MessageboxAnswer. Closing the window is the neutral answer.
    static int message(GtkWindow* parent, const std::string& title, const std::string& text, int style);
    // A secret (password, pass phrase); with confirm it is typed twice and must match.
    // Nothing when cancelled.
    static std::optional<std::string> askSecret(GtkWindow* parent, const std::string& title,
                                                const std::string& question, bool confirm = false);
    // Lines of text fields under their labels, filled with values; the edited values,
    // or nothing when cancelled.
    static std::optional<std::vector<std::string>> askFields(GtkWindow* parent, const std::string& title,
                                                             const std::vector<std::string>& labels,
                                                             const std::vector<std::string>& values);
    // A folder chosen by the user; "" when cancelled.
    static std::string chooseFolder(GtkWindow* parent, const std::string& title);

    // A vertical box with the same margin on every side: the body of a window or dialog.
    static GtkWidget* column(int margin = 16);

    // Runs the main loop until done is set or the application quits.
    static void runUntil(const bool& done);
};

} // namespace cirrovault::desktop

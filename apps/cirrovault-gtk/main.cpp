// cirrovault-gtk: the desktop application. Same engine, same account and tasks as the
// command line; the controllers' windows are drawn by the GTK view back end.
#include <gtk/gtk.h>
#include <glib-unix.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "DesktopSession.h"
#include "platform/view/gtk/GtkScreenshot.h"
#include "platform/view/gtk/GtkViewBackend.h"
#include "GtkDialogs.h"
#include "MainWindow.h"
#include "platform/view/ViewBackend.h"
#include "platform/view/ViewLayout.h"

using namespace cirrovault;
using namespace cirrovault::desktop;

namespace {

struct Desktop {
    cli::GlobalOptions options;
    std::string screenshot; // --screenshot: draw the window once into this PNG, then end
    std::unique_ptr<DesktopSession> session;
    std::unique_ptr<MainWindow> window;
};

Desktop desktop;

// SIGTERM, SIGINT: every dialog gives its neutral answer, a run under way is cancelled
// through its window, and the application ends.
gboolean quitOnSignal(gpointer app) {
    GtkDialogs::quitting = true;
    if (auto window = ViewBackend::shared()->modalWindow())
        window->press(ViewButton::Cancel);
    g_application_quit(G_APPLICATION(app));
    return G_SOURCE_CONTINUE;
}

void activate(GtkApplication* app, gpointer) {
    if (desktop.window) {
        gtk_window_present(desktop.window->window());
        return;
    }
    // Held while the logon asks, so the application does not end with no window open.
    g_application_hold(G_APPLICATION(app));
    desktop.session = std::make_unique<DesktopSession>(desktop.options, G_APPLICATION(app));
    bool on = desktop.session->logon(nullptr);
    g_application_release(G_APPLICATION(app));
    if (!on) {
        g_application_quit(G_APPLICATION(app));
        return;
    }
    desktop.window = std::make_unique<MainWindow>(*desktop.session, app);
    gtk_window_present(desktop.window->window());
    if (!desktop.screenshot.empty())
        g_timeout_add_seconds(2, +[](gpointer data) -> gboolean {
            bool saved = saveWidgetPng(GTK_WIDGET(desktop.window->window()), desktop.screenshot);
            std::fprintf(saved ? stdout : stderr, "%s %s\n", saved ? "saved" : "cannot save", desktop.screenshot.c_str());
            g_application_quit(G_APPLICATION(data));
            return G_SOURCE_REMOVE;
        }, app);
}

void shutdown(GtkApplication*, gpointer) {
    GtkDialogs::quitting = true;
    desktop.window.reset();
    desktop.session.reset();
}

// The command line's own options; the rest is GTK's.
int takeOptions(int argc, char** argv) {
    int kept = 1;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if ((arg == "--user" || arg == "--service") && i + 1 < argc) {
            (arg == "--user" ? desktop.options.user : desktop.options.service) = argv[++i];
        } else if (arg == "--screenshot" && i + 1 < argc) {
            desktop.screenshot = argv[++i];
        } else if (arg == "--verbose") {
            desktop.options.verbose = true;
        } else if (arg == "--help" || arg == "-h") {
            std::printf("Usage: cirrovault-gtk [--user NAME] [--service URL] [--verbose] [--screenshot PNG]\n"
                        "The desktop window of Cirrovault: the account, its tasks, backups and restores.\n"
                        "--screenshot draws the main window once into PNG and ends (for the documentation).\n");
            std::exit(0);
        } else {
            argv[kept++] = argv[i];
        }
    }
    return kept;
}

} // namespace

int main(int argc, char** argv) {
    argc = takeOptions(argc, argv);
    GtkApplication* app = gtk_application_new("org.cirrovault.Desktop", G_APPLICATION_DEFAULT_FLAGS);
    g_signal_connect(app, "activate", G_CALLBACK(activate), nullptr);
    g_signal_connect(app, "shutdown", G_CALLBACK(shutdown), nullptr);
    // A transfer to a server that went away fails with its own error, not the signal.
    signal(SIGPIPE, SIG_IGN);
    g_unix_signal_add(SIGTERM, quitOnSignal, app);
    g_unix_signal_add(SIGINT, quitOnSignal, app);
    int status = g_application_run(G_APPLICATION(app), argc, argv);
    g_object_unref(app);
    return status;
}

#pragma once

// Finding GTK windows and widgets on a virtual display and using them the way a person
// does, for the tests of the desktop windows. Main thread only.
#include <gtk/gtk.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/os/FileSystem.h"
#include "platform/view/gtk/GtkScreenshot.h"

namespace cirrovault::test {

using Match = std::function<bool(GtkWidget*)>;

// The first widget at or under root that matches.
inline GtkWidget* find(GtkWidget* root, const Match& match) {
    if (!root || match(root))
        return root;
    for (GtkWidget* child = gtk_widget_get_first_child(root); child;
         child = gtk_widget_get_next_sibling(child))
        if (GtkWidget* found = find(child, match))
            return found;
    return nullptr;
}

inline Match named(const std::string& name) {
    return [name](GtkWidget* w) { return name == gtk_widget_get_name(w); };
}

// A label or button that shows the text.
inline Match showing(const std::string& text) {
    return [text](GtkWidget* w) {
        const char* shown = GTK_IS_LABEL(w)    ? gtk_label_get_text(GTK_LABEL(w))
                            : GTK_IS_BUTTON(w) ? gtk_button_get_label(GTK_BUTTON(w))
                                               : nullptr;
        return shown && text == shown;
    };
}

// Turns the main loop until the condition holds, at most `seconds`.
inline bool pumpUntil(const std::function<bool()>& done, double seconds = 10) {
    auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() > until)
            return false;
        if (!g_main_context_iteration(nullptr, FALSE))
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// The window on screen that holds a widget that matches; null while there is none.
inline GtkWidget* shownWindow(const Match& match) {
    GListModel* windows = gtk_window_get_toplevels();
    for (guint i = 0; i < g_list_model_get_n_items(windows); ++i) {
        auto* window = GTK_WIDGET(g_list_model_get_item(windows, i));
        g_object_unref(window); // the list keeps it
        if (gtk_widget_get_mapped(window) && gtk_widget_get_width(window) > 0 &&
            find(window, match))
            return window;
    }
    return nullptr;
}

// Saves the window as NAME.png in $CV_SCREENSHOT_DIR (else test-screenshots) once it has
// laid itself out and painted its last change, and prints where.
inline bool screenshot(GtkWidget* window, const std::string& name) {
    const char* folder = std::getenv("CV_SCREENSHOT_DIR");
    std::string dir = folder && *folder ? folder : "test-screenshots";
    FileSystem::createDirectories(dir);
    std::string path = dir + "/" + name + ".png";
    g_object_ref(window); // a run's window may close meanwhile
    int frames = 0;
    guint ticks = gtk_widget_add_tick_callback(
        window,
        [](GtkWidget*, GdkFrameClock*, gpointer count) -> gboolean {
            ++*static_cast<int*>(count);
            return G_SOURCE_CONTINUE;
        },
        &frames, nullptr);
    bool ready = pumpUntil([&] { return frames >= 3 && gtk_widget_get_width(window) > 0; });
    gtk_widget_remove_tick_callback(window, ticks);
    bool saved = ready && saveWidgetPng(window, path);
    g_object_unref(window);
    std::cout << "screenshot: " << path << (saved ? "" : " (failed)") << std::endl;
    return saved;
}

// Clicks the button named or labelled so, in a turn of the main loop of its own: a click
// that opens a dialog runs the dialog's loop, and whoever clicked must go on inside it.
inline void press(GtkWidget* window, const std::string& button) {
    GtkWidget* found = find(window, [&](GtkWidget* w) {
        return GTK_IS_BUTTON(w) && (named(button)(w) || showing(button)(w));
    });
    ASSERT_TRUE(found) << button;
    g_idle_add(
        +[](gpointer b) -> gboolean {
            g_signal_emit_by_name(b, "clicked");
            g_object_unref(b);
            return G_SOURCE_REMOVE;
        },
        g_object_ref(found));
}

inline void type(GtkWidget* window, const Match& field, const std::string& text) {
    GtkWidget* found = find(window, field);
    ASSERT_TRUE(found && GTK_IS_EDITABLE(found));
    gtk_editable_set_text(GTK_EDITABLE(found), text.c_str());
}

// Drives the windows that a modal call shows, from the main loop while the call runs:
// each step waits for a window with a widget that matches, then acts on it. A step not
// reached within 20 seconds ends the script, which then closes every window but `keep`,
// so that the call returns.
class Script {
public:
    using Act = std::function<void(GtkWidget*)>;
    Script(GtkWindow* keep, std::vector<std::pair<Match, Act>> steps)
        : steps_(std::move(steps)), keep_(keep) {
        source_ = g_timeout_add(
            50, +[](gpointer self) -> gboolean { return static_cast<Script*>(self)->tick(); },
            this);
    }
    ~Script() {
        if (source_)
            g_source_remove(source_);
    }
    Script(const Script&) = delete;
    Script& operator=(const Script&) = delete;

    size_t stepsDone() const { return next_; }
    bool finished() const { return next_ == steps_.size(); }

private:
    gboolean tick() {
        if (finished()) {
            source_ = 0;
            return G_SOURCE_REMOVE;
        }
        if (++ticks_ <= 400) {
            if (GtkWidget* window = shownWindow(steps_[next_].first)) {
                ticks_ = 0;
                steps_[next_++].second(window);
            }
        } else if (GtkWidget* window = shownWindow([this](GtkWidget* w) {
                       return GTK_IS_WINDOW(w) && GTK_WINDOW(w) != keep_;
                   })) {
            gtk_window_close(GTK_WINDOW(window));
        }
        return G_SOURCE_CONTINUE;
    }

    std::vector<std::pair<Match, Act>> steps_;
    GtkWindow* keep_;
    size_t next_ = 0;
    int ticks_ = 0;
    guint source_ = 0;
};

} // namespace cirrovault::test

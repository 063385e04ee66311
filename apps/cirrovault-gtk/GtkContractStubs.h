#pragma once

// Stand-ins for the GTK view back end and its screenshot helper while they are built
// on their own branch. Once src/platform/view/gtk is in the tree this header only
// forwards to it; then this pair can go and its includes point there directly.
#if __has_include("platform/view/gtk/GtkViewBackend.h")
#include "platform/view/gtk/GtkScreenshot.h"
#include "platform/view/gtk/GtkViewBackend.h"
#else
#include <gtk/gtk.h>

#include <string>

#include "platform/view/headless/HeadlessViewBackend.h"

namespace cirrovault {

// Draws nothing, but keeps the GTK main loop turning while a controller's window runs
// modally on the main thread, so the application's own windows stay alive. The
// wizard's windows need a person, so they close at once (the wizard gives up).
class GtkViewBackend : public HeadlessViewBackend {
protected:
    double tickSeconds() const override { return 0.02; }
    void modalStarted(ViewWindow& window) override;
    void modalTick(ViewWindow& window) override;
};

// Renders the widget as it is drawn now into a PNG file; false (logged) when it cannot.
bool saveWidgetPng(GtkWidget* widget, const std::string& pngPath);

} // namespace cirrovault
#endif

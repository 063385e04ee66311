#pragma once

#include <gtk/gtk.h>

#include <string>

namespace cirrovault {

// Saves what the widget shows now (a window with its contents) as a PNG. The widget
// must be shown and laid out. False, with a logged error, when it cannot be drawn or
// the file cannot be written. Main thread.
bool saveWidgetPng(GtkWidget* widget, const std::string& pngPath);

} // namespace cirrovault

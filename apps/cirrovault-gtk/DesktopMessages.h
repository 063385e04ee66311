#pragma once

#include <gtk/gtk.h>

#include <string>

#include "platform/framework/NimboMessagebox.h"

namespace cirrovault::desktop {

// The engine's message boxes as GTK dialogs. A box raised on a worker thread is shown
// on the main thread while the worker waits for the answer (at most ten minutes, then
// the neutral answer).
class DesktopMessages : public NimboMessagebox::Presenter {
public:
    // Main thread only.
    void setParent(GtkWindow* parent) { parent_ = parent; }

    int showMessage(const std::string& title, const std::string& informativeText, int messageboxStyle) override;
    int showStorageOrder(const std::string& title, const std::string& message, bool& checkBox,
                         int dialogStyle) override;
    std::string chooseFolder(const std::string& title) override;

private:
    GtkWindow* parent_ = nullptr;
};

} // namespace cirrovault::desktop

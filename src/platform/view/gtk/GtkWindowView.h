#pragma once

#include <gtk/gtk.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/view/ViewWindow.h"

namespace cirrovault {

// The GTK 4 window that draws one ViewWindow: its widgets follow the layout's outlets,
// and the user's clicks and edits go back to the ViewWindow as presses and values.
// Widgets are named after their outlet or button. Main thread only; the window it
// draws is held weakly, so a view outliving its
// ViewWindow draws nothing and presses nothing.
class GtkWindowView {
public:
    explicit GtkWindowView(const std::shared_ptr<ViewWindow>& window);
    ~GtkWindowView(); // destroys the GTK window
    GtkWindowView(const GtkWindowView&) = delete;
    GtkWindowView& operator=(const GtkWindowView&) = delete;

    GtkWindow* gtkWindow() const { return gtkWindow_; }
    // Whether the ViewWindow is still there.
    bool alive() const { return !window_.expired(); }
    // Brings every widget up to the ViewWindow's texts and values.
    void sync();

private:
    std::shared_ptr<ViewWindow> target() const { return window_.lock(); }
    void press(const char* button);

    GtkWidget* label(const char* outlet, bool wrap = false);
    GtkWidget* button(const char* name, const std::string& title);
    GtkWidget* buttonRow(const std::vector<GtkWidget*>& buttons);
    void buildLoopDialog(GtkWidget* box);
    void buildProgress(GtkWidget* box);
    void buildDownload(GtkWidget* box);
    void buildStep(GtkWidget* box);
    void buildBrowser(GtkWidget* box);

    void syncStep(ViewWindow& window);
    void syncBrowser(ViewWindow& window);

    static gboolean onCloseRequest(GtkWindow*, gpointer self);
    static void onButton(GtkButton* button, gpointer self);
    static void onEntryChanged(GtkEditable* editable, gpointer self);
    static void onRadioToggled(GtkCheckButton* check, gpointer self);
    static void onDaySelected(GObject*, GParamSpec*, gpointer self);
    static void onTimeChanged(GtkSpinButton*, gpointer self);
    static void onRowSelected(GtkListBox*, GtkListBoxRow* row, gpointer self);
    static void onRowActivated(GtkListBox*, GtkListBoxRow* row, gpointer self);
    static void onRowTicked(GtkCheckButton* check, gpointer self);

    const std::weak_ptr<ViewWindow> window_;
    const std::string layout_;
    GtkWindow* gtkWindow_ = nullptr;
    // Set while sync writes to widgets, so their signals are not taken for the user's.
    bool syncing_ = false;
    std::map<std::string, GtkLabel*> labels_;
    std::map<std::string, GtkButton*> buttons_;
    GtkSpinner* spinner_ = nullptr;
    GtkStack* pages_ = nullptr;
    GtkProgressBar* bar_ = nullptr;
    // CreateTaskStep1
    GtkEditable* name_ = nullptr;
    GtkEditable* description_ = nullptr;
    GtkCheckButton* radios_[3] = {nullptr, nullptr, nullptr};
    GtkDropDown* days_ = nullptr;
    std::vector<std::string> dayTitles_;
    GtkLabel* date_ = nullptr;
    GtkSpinButton* hour_ = nullptr;
    GtkSpinButton* minute_ = nullptr;
    // FilePathBrowser
    GtkListBox* list_ = nullptr;
    std::vector<std::string> rows_; // as drawn, to rebuild the list only when they change
};

} // namespace cirrovault

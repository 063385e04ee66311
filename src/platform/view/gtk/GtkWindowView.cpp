#include "platform/view/gtk/GtkWindowView.h"

#include <algorithm>
#include <cmath>

#include <fmt/format.h>

#include "platform/view/ViewLayout.h"

namespace cirrovault {

namespace {

constexpr const char* ButtonKey = "cv-button";
constexpr const char* OutletKey = "cv-outlet";
constexpr const char* RowKey = "cv-row";
constexpr const char* TagKey = "cv-tag";
// What a browser row starts with when ticked (drawn by the controller's cell).
constexpr const char* TickedBox = "[x] ";
constexpr size_t BoxWidth = 4;

void setLabel(GtkLabel* label, const std::string& text) {
    if (label && text != gtk_label_get_text(label))
        gtk_label_set_text(label, text.c_str());
}

void setEditable(GtkEditable* editable, const std::string& text) {
    if (editable && text != gtk_editable_get_text(editable))
        gtk_editable_set_text(editable, text.c_str());
}

GtkWidget* vbox(int spacing) {
    return gtk_box_new(GTK_ORIENTATION_VERTICAL, spacing);
}

GtkWidget* hbox(int spacing) {
    return gtk_box_new(GTK_ORIENTATION_HORIZONTAL, spacing);
}

GtkWidget* caption(const char* text) {
    GtkWidget* label = gtk_label_new(text);
    gtk_label_set_xalign(GTK_LABEL(label), 0);
    return label;
}

// The themed icon for the one-character kind mark a drawn row starts with ("D "
// folder, "@ " link, "* " program, "- " document), or nullptr when it has none.
const char* iconFor(const std::string& drawn) {
    if (drawn.size() < 2 || drawn[1] != ' ')
        return nullptr;
    switch (drawn[0]) {
    case 'D':
        return "folder";
    case '@':
        return "emblem-symbolic-link";
    case '*':
        return "application-x-executable";
    case '-':
        return "text-x-generic";
    case '?':
        return "unknown";
    default:
        return nullptr;
    }
}

} // namespace

GtkWindowView::GtkWindowView(const std::shared_ptr<ViewWindow>& window)
    : window_(window), layout_(window ? window->layout() : std::string()) {
    gtkWindow_ = GTK_WINDOW(gtk_window_new());
    g_signal_connect(gtkWindow_, "close-request", G_CALLBACK(onCloseRequest), this);
    GtkWidget* box = vbox(8);
    for (auto margin : {gtk_widget_set_margin_top, gtk_widget_set_margin_bottom, gtk_widget_set_margin_start,
                        gtk_widget_set_margin_end})
        margin(box, 16);
    gtk_window_set_child(gtkWindow_, box);
    int width = 460;
    if (layout_ == ViewLayout::LoopDialog) {
        buildLoopDialog(box);
    } else if (layout_ == ViewLayout::ProgressWindow) {
        buildProgress(box);
    } else if (layout_ == ViewLayout::DownloadProgressWindow) {
        buildDownload(box);
    } else if (layout_ == ViewLayout::CreateTaskStep1) {
        buildStep(box);
        width = 520;
    } else if (layout_ == ViewLayout::FilePathBrowser) {
        buildBrowser(box);
        width = 680;
        gtk_window_set_default_size(gtkWindow_, width, 480);
    } else {
        gtk_box_append(GTK_BOX(box), label(ViewOutlet::Title));
    }
    if (layout_ != ViewLayout::FilePathBrowser)
        gtk_window_set_default_size(gtkWindow_, width, -1);
    sync();
}

GtkWindowView::~GtkWindowView() {
    if (gtkWindow_)
        gtk_window_destroy(gtkWindow_);
}

void GtkWindowView::press(const char* button) {
    if (auto window = target())
        window->press(button);
}

GtkWidget* GtkWindowView::label(const char* outlet, bool wrap) {
    GtkWidget* widget = gtk_label_new("");
    gtk_label_set_xalign(GTK_LABEL(widget), 0);
    if (wrap) {
        gtk_label_set_wrap(GTK_LABEL(widget), TRUE);
        gtk_label_set_wrap_mode(GTK_LABEL(widget), PANGO_WRAP_WORD_CHAR);
    } else {
        // Paths can be long: their ends say the most.
        gtk_label_set_ellipsize(GTK_LABEL(widget), PANGO_ELLIPSIZE_MIDDLE);
    }
    gtk_widget_set_name(widget, outlet);
    labels_[outlet] = GTK_LABEL(widget);
    return widget;
}

GtkWidget* GtkWindowView::button(const char* name, const std::string& title) {
    GtkWidget* widget = gtk_button_new_with_label(title.c_str());
    gtk_widget_set_name(widget, name);
    g_object_set_data(G_OBJECT(widget), ButtonKey, const_cast<char*>(name));
    g_signal_connect(widget, "clicked", G_CALLBACK(onButton), this);
    buttons_[name] = GTK_BUTTON(widget);
    return widget;
}

GtkWidget* GtkWindowView::buttonRow(const std::vector<GtkWidget*>& buttons) {
    GtkWidget* row = hbox(8);
    gtk_widget_set_halign(row, GTK_ALIGN_END);
    gtk_widget_set_margin_top(row, 8);
    for (GtkWidget* widget : buttons)
        gtk_box_append(GTK_BOX(row), widget);
    return row;
}

void GtkWindowView::buildLoopDialog(GtkWidget* box) {
    using namespace ViewOutlet;
    GtkWidget* top = hbox(12);
    spinner_ = GTK_SPINNER(gtk_spinner_new());
    gtk_widget_set_valign(GTK_WIDGET(spinner_), GTK_ALIGN_START);
    gtk_box_append(GTK_BOX(top), GTK_WIDGET(spinner_));
    pages_ = GTK_STACK(gtk_stack_new());
    gtk_widget_set_hexpand(GTK_WIDGET(pages_), TRUE);
    gtk_stack_add_named(pages_, label(LogOnStr, true), "0");
    GtkWidget* scan = vbox(4);
    gtk_box_append(GTK_BOX(scan), label(ScanFileStr, true));
    gtk_box_append(GTK_BOX(scan), label(TotalSourceFilePath));
    GtkWidget* totals = hbox(6);
    gtk_box_append(GTK_BOX(totals), label(TotalSourceSize));
    gtk_box_append(GTK_BOX(totals), label(TotalFilesCount));
    gtk_box_append(GTK_BOX(totals), caption("files"));
    gtk_box_append(GTK_BOX(scan), totals);
    gtk_stack_add_named(pages_, scan, "1");
    gtk_stack_add_named(pages_, label(RetryLogonStr, true), "2");
    gtk_box_append(GTK_BOX(top), GTK_WIDGET(pages_));
    gtk_box_append(GTK_BOX(box), top);
    gtk_box_append(GTK_BOX(box), buttonRow({button(ViewButton::Retry, "Retry"), button(ViewButton::Cancel, "Cancel")}));
}

void GtkWindowView::buildProgress(GtkWidget* box) {
    using namespace ViewOutlet;
    gtk_box_append(GTK_BOX(box), label(Message, true));
    bar_ = GTK_PROGRESS_BAR(gtk_progress_bar_new());
    gtk_widget_set_name(GTK_WIDGET(bar_), Bar);
    gtk_progress_bar_set_show_text(bar_, TRUE);
    gtk_box_append(GTK_BOX(box), GTK_WIDGET(bar_));
    GtkWidget* grid = gtk_grid_new();
    gtk_grid_set_column_spacing(GTK_GRID(grid), 8);
    gtk_grid_set_row_spacing(GTK_GRID(grid), 4);
    const char* rows[][3] = {{TotalLabel, Total, TotalUnit}, {LeftLabel, Left, LeftUnit}, {TimeLeftLabel, TimeLeft, nullptr}};
    for (int row = 0; row < 3; ++row)
        for (int column = 0; column < 3; ++column)
            if (const char* outlet = rows[row][column])
                gtk_grid_attach(GTK_GRID(grid), label(outlet), column, row, 1, 1);
    gtk_box_append(GTK_BOX(box), grid);
    gtk_box_append(GTK_BOX(box), buttonRow({button(ViewButton::Cancel, "Cancel")}));
}

void GtkWindowView::buildDownload(GtkWidget* box) {
    using namespace ViewOutlet;
    gtk_box_append(GTK_BOX(box), label(DownPath));
    gtk_box_append(GTK_BOX(box), label(RestoringFile));
    bar_ = GTK_PROGRESS_BAR(gtk_progress_bar_new());
    gtk_widget_set_name(GTK_WIDGET(bar_), FilePrgBar);
    gtk_progress_bar_set_show_text(bar_, TRUE);
    gtk_box_append(GTK_BOX(box), GTK_WIDGET(bar_));
    GtkWidget* figures = hbox(16);
    gtk_box_append(GTK_BOX(figures), label(TransferRate));
    gtk_box_append(GTK_BOX(figures), caption("Time left:"));
    gtk_box_append(GTK_BOX(figures), label(TimeLeft));
    gtk_box_append(GTK_BOX(box), figures);
    gtk_box_append(GTK_BOX(box), buttonRow({button(ViewButton::Cancel, "Cancel")}));
}

void GtkWindowView::buildStep(GtkWidget* box) {
    using namespace ViewOutlet;
    GtkWidget* grid = gtk_grid_new();
    gtk_grid_set_column_spacing(GTK_GRID(grid), 12);
    gtk_grid_set_row_spacing(GTK_GRID(grid), 8);
    auto entry = [this](const char* outlet) {
        GtkWidget* widget = gtk_entry_new();
        gtk_widget_set_hexpand(widget, TRUE);
        gtk_widget_set_name(widget, outlet);
        g_object_set_data(G_OBJECT(widget), OutletKey, const_cast<char*>(outlet));
        g_signal_connect(widget, "changed", G_CALLBACK(onEntryChanged), this);
        return widget;
    };
    GtkWidget* name = entry(TaskName);
    GtkWidget* description = entry(TaskDescription);
    name_ = GTK_EDITABLE(name);
    description_ = GTK_EDITABLE(description);
    gtk_grid_attach(GTK_GRID(grid), caption("Name"), 0, 0, 1, 1);
    gtk_grid_attach(GTK_GRID(grid), name, 1, 0, 1, 1);
    gtk_grid_attach(GTK_GRID(grid), caption("Description"), 0, 1, 1, 1);
    gtk_grid_attach(GTK_GRID(grid), description, 1, 1, 1, 1);

    GtkWidget* types = hbox(12);
    const char* titles[] = {"Daily", "Weekly", "Once, within dates"};
    for (int i = 0; i < 3; ++i) {
        GtkWidget* radio = gtk_check_button_new_with_label(titles[i]);
        radios_[i] = GTK_CHECK_BUTTON(radio);
        gtk_widget_set_name(radio, fmt::format("{}{}", BackupTypeMatrixRadio, i + 1).c_str());
        if (i > 0)
            gtk_check_button_set_group(radios_[i], radios_[0]);
        g_object_set_data(G_OBJECT(radio), TagKey, GINT_TO_POINTER(i + 1));
        g_signal_connect(radio, "toggled", G_CALLBACK(onRadioToggled), this);
        gtk_box_append(GTK_BOX(types), radio);
    }
    gtk_grid_attach(GTK_GRID(grid), caption("Schedule"), 0, 2, 1, 1);
    gtk_grid_attach(GTK_GRID(grid), types, 1, 2, 1, 1);

    days_ = GTK_DROP_DOWN(gtk_drop_down_new(G_LIST_MODEL(gtk_string_list_new(nullptr)), nullptr));
    gtk_widget_set_name(GTK_WIDGET(days_), DaysPopupButton);
    g_signal_connect(days_, "notify::selected", G_CALLBACK(onDaySelected), this);
    gtk_widget_set_halign(GTK_WIDGET(days_), GTK_ALIGN_START);
    gtk_grid_attach(GTK_GRID(grid), caption("Day"), 0, 3, 1, 1);
    gtk_grid_attach(GTK_GRID(grid), GTK_WIDGET(days_), 1, 3, 1, 1);

    GtkWidget* time = hbox(6);
    date_ = GTK_LABEL(caption(""));
    hour_ = GTK_SPIN_BUTTON(gtk_spin_button_new_with_range(0, 23, 1));
    minute_ = GTK_SPIN_BUTTON(gtk_spin_button_new_with_range(0, 59, 1));
    for (GtkSpinButton* spin : {hour_, minute_}) {
        gtk_spin_button_set_wrap(spin, TRUE);
        g_signal_connect(spin, "value-changed", G_CALLBACK(onTimeChanged), this);
    }
    gtk_box_append(GTK_BOX(time), GTK_WIDGET(date_));
    gtk_box_append(GTK_BOX(time), GTK_WIDGET(hour_));
    gtk_box_append(GTK_BOX(time), caption(":"));
    gtk_box_append(GTK_BOX(time), GTK_WIDGET(minute_));
    gtk_grid_attach(GTK_GRID(grid), caption("Time"), 0, 4, 1, 1);
    gtk_grid_attach(GTK_GRID(grid), time, 1, 4, 1, 1);

    gtk_box_append(GTK_BOX(box), grid);
    gtk_box_append(GTK_BOX(box), buttonRow({button(ViewButton::Back, "Back"), button(ViewButton::Next, "Next")}));
}

void GtkWindowView::buildBrowser(GtkWidget* box) {
    using namespace ViewOutlet;
    gtk_box_append(GTK_BOX(box), label(Title, true));
    gtk_box_append(GTK_BOX(box), label(CurrentPath));
    gtk_box_append(GTK_BOX(box), label(Status));
    list_ = GTK_LIST_BOX(gtk_list_box_new());
    gtk_widget_set_name(GTK_WIDGET(list_), Rows);
    gtk_list_box_set_selection_mode(list_, GTK_SELECTION_SINGLE);
    g_signal_connect(list_, "row-selected", G_CALLBACK(onRowSelected), this);
    g_signal_connect(list_, "row-activated", G_CALLBACK(onRowActivated), this);
    GtkWidget* scroller = gtk_scrolled_window_new();
    gtk_scrolled_window_set_child(GTK_SCROLLED_WINDOW(scroller), GTK_WIDGET(list_));
    gtk_widget_set_vexpand(scroller, TRUE);
    gtk_box_append(GTK_BOX(box), scroller);
    gtk_box_append(GTK_BOX(box), buttonRow({button(ViewButton::Parent, "Up"), button(ViewButton::Open, "Open"),
                                            button(ViewButton::Done, "Done")}));
}

void GtkWindowView::sync() {
    auto window = target();
    if (!window)
        return;
    using namespace ViewOutlet;
    syncing_ = true;
    std::string title = window->text(Title);
    gtk_window_set_title(gtkWindow_, title.c_str());
    for (auto& [outlet, widget] : labels_)
        setLabel(widget, window->text(outlet));
    if (auto cancel = buttons_.find(ViewButton::Cancel); cancel != buttons_.end()) {
        std::string text = window->text(CancelTitle);
        if (!text.empty())
            gtk_button_set_label(cancel->second, text.c_str());
    }
    if (spinner_)
        gtk_spinner_set_spinning(spinner_, window->isSpinning());
    if (pages_) {
        int tab = std::clamp(window->selectedTab(), 0, 2);
        gtk_stack_set_visible_child_name(pages_, std::to_string(tab).c_str());
        gtk_widget_set_visible(GTK_WIDGET(buttons_[ViewButton::Retry]), tab == 2);
    }
    if (bar_) {
        double percent = window->value(layout_ == ViewLayout::DownloadProgressWindow ? FilePrgBar : Bar);
        percent = std::clamp(percent, 0.0, 100.0);
        gtk_progress_bar_set_fraction(bar_, percent / 100.0);
        gtk_progress_bar_set_text(bar_, fmt::format("{:.0f}%", percent).c_str());
    }
    if (layout_ == ViewLayout::CreateTaskStep1)
        syncStep(*window);
    else if (layout_ == ViewLayout::FilePathBrowser)
        syncBrowser(*window);
    syncing_ = false;
}

void GtkWindowView::syncStep(ViewWindow& window) {
    using namespace ViewOutlet;
    setEditable(name_, window.text(TaskName));
    setEditable(description_, window.text(TaskDescription));
    int tag = static_cast<int>(window.value(BackupTypeMatrixRadio));
    if (tag >= 1 && tag <= 3)
        gtk_check_button_set_active(radios_[tag - 1], TRUE);
    std::vector<std::string> days = window.items(DaysPopupButton);
    if (days != dayTitles_) {
        std::vector<const char*> strings;
        for (const std::string& day : days)
            strings.push_back(day.c_str());
        strings.push_back(nullptr);
        GtkStringList* model = gtk_string_list_new(strings.data());
        gtk_drop_down_set_model(days_, G_LIST_MODEL(model));
        g_object_unref(model);
        dayTitles_ = days;
    }
    auto day = static_cast<guint>(std::max(0.0, window.value(DaysPopupButton)));
    if (day < days.size())
        gtk_drop_down_set_selected(days_, day);
    gtk_widget_set_sensitive(GTK_WIDGET(days_), window.isEnabled(DaysPopupButton));

    GDateTime* when = g_date_time_new_from_unix_local(static_cast<gint64>(window.value(BackupDate)));
    if (when) {
        gchar* date = g_date_time_format(when, "%Y-%m-%d");
        setLabel(date_, date);
        g_free(date);
        gtk_spin_button_set_value(hour_, g_date_time_get_hour(when));
        gtk_spin_button_set_value(minute_, g_date_time_get_minute(when));
        g_date_time_unref(when);
    }
}

void GtkWindowView::syncBrowser(ViewWindow& window) {
    std::vector<std::string> rows = window.items(ViewOutlet::Rows);
    if (rows != rows_) {
        while (GtkWidget* child = gtk_widget_get_first_child(GTK_WIDGET(list_)))
            gtk_list_box_remove(list_, child);
        for (size_t i = 0; i < rows.size(); ++i) {
            const std::string& row = rows[i];
            bool ticked = row.rfind(TickedBox, 0) == 0;
            GtkWidget* line = hbox(8);
            GtkWidget* check = gtk_check_button_new();
            gtk_check_button_set_active(GTK_CHECK_BUTTON(check), ticked);
            g_object_set_data(G_OBJECT(check), RowKey, GINT_TO_POINTER(static_cast<int>(i)));
            g_signal_connect(check, "toggled", G_CALLBACK(onRowTicked), this);
            std::string drawn = row.size() > BoxWidth ? row.substr(BoxWidth) : std::string();
            const char* icon = iconFor(drawn);
            GtkWidget* text = caption(icon ? drawn.c_str() + 2 : drawn.c_str());
            // The row's columns (size, date) line up only in a fixed-width face.
            gtk_widget_add_css_class(text, "monospace");
            gtk_box_append(GTK_BOX(line), check);
            if (icon)
                gtk_box_append(GTK_BOX(line), gtk_image_new_from_icon_name(icon));
            gtk_box_append(GTK_BOX(line), text);
            gtk_list_box_append(list_, line);
        }
        rows_ = rows;
    }
    double cursor = window.value(ViewOutlet::Cursor);
    GtkListBoxRow* row = cursor >= 0 ? gtk_list_box_get_row_at_index(list_, static_cast<int>(cursor)) : nullptr;
    if (row && gtk_list_box_get_selected_row(list_) != row)
        gtk_list_box_select_row(list_, row);
}

gboolean GtkWindowView::onCloseRequest(GtkWindow*, gpointer self) {
    auto* view = static_cast<GtkWindowView*>(self);
    // The window stays until its controller closes it: a worker may still be
    // winding down, and a restore asks first. The wizard's windows have no worker:
    // closing the browser keeps its ticks, closing the step goes back.
    if (view->layout_ == ViewLayout::FilePathBrowser)
        view->press(ViewButton::Done);
    else if (view->layout_ == ViewLayout::CreateTaskStep1)
        view->press(ViewButton::Back);
    else
        view->press(ViewButton::Close);
    return TRUE;
}

void GtkWindowView::onButton(GtkButton* button, gpointer self) {
    auto* name = static_cast<const char*>(g_object_get_data(G_OBJECT(button), ButtonKey));
    static_cast<GtkWindowView*>(self)->press(name);
}

void GtkWindowView::onEntryChanged(GtkEditable* editable, gpointer self) {
    auto* view = static_cast<GtkWindowView*>(self);
    auto window = view->target();
    if (view->syncing_ || !window)
        return;
    auto* outlet = static_cast<const char*>(g_object_get_data(G_OBJECT(editable), OutletKey));
    window->setText(outlet, gtk_editable_get_text(editable));
}

void GtkWindowView::onRadioToggled(GtkCheckButton* check, gpointer self) {
    auto* view = static_cast<GtkWindowView*>(self);
    auto window = view->target();
    if (view->syncing_ || !window || !gtk_check_button_get_active(check))
        return;
    window->setValue(ViewOutlet::BackupTypeMatrixRadio, GPOINTER_TO_INT(g_object_get_data(G_OBJECT(check), TagKey)));
    window->press(ViewOutlet::BackupTypeMatrixRadio);
}

void GtkWindowView::onDaySelected(GObject*, GParamSpec*, gpointer self) {
    auto* view = static_cast<GtkWindowView*>(self);
    auto window = view->target();
    guint day = gtk_drop_down_get_selected(view->days_);
    if (view->syncing_ || !window || day == GTK_INVALID_LIST_POSITION)
        return;
    window->setValue(ViewOutlet::DaysPopupButton, day);
}

void GtkWindowView::onTimeChanged(GtkSpinButton*, gpointer self) {
    auto* view = static_cast<GtkWindowView*>(self);
    auto window = view->target();
    if (view->syncing_ || !window)
        return;
    // The picker keeps its day and sets the hour and minute, in local time.
    GDateTime* was = g_date_time_new_from_unix_local(static_cast<gint64>(window->value(ViewOutlet::BackupDate)));
    if (!was)
        return;
    GDateTime* now = g_date_time_new_local(g_date_time_get_year(was), g_date_time_get_month(was),
                                           g_date_time_get_day_of_month(was),
                                           gtk_spin_button_get_value_as_int(view->hour_),
                                           gtk_spin_button_get_value_as_int(view->minute_), 0);
    g_date_time_unref(was);
    if (!now)
        return;
    window->setValue(ViewOutlet::BackupDate, static_cast<double>(g_date_time_to_unix(now)));
    g_date_time_unref(now);
}

void GtkWindowView::onRowSelected(GtkListBox*, GtkListBoxRow* row, gpointer self) {
    auto* view = static_cast<GtkWindowView*>(self);
    auto window = view->target();
    if (view->syncing_ || !window || !row)
        return;
    window->setValue(ViewOutlet::Cursor, gtk_list_box_row_get_index(row));
}

void GtkWindowView::onRowActivated(GtkListBox*, GtkListBoxRow* row, gpointer self) {
    auto* view = static_cast<GtkWindowView*>(self);
    auto window = view->target();
    if (!window || !row)
        return;
    window->setValue(ViewOutlet::Cursor, gtk_list_box_row_get_index(row));
    window->press(ViewButton::Open);
}

void GtkWindowView::onRowTicked(GtkCheckButton* check, gpointer self) {
    auto* view = static_cast<GtkWindowView*>(self);
    auto window = view->target();
    if (view->syncing_ || !window)
        return;
    window->setValue(ViewOutlet::Cursor, GPOINTER_TO_INT(g_object_get_data(G_OBJECT(check), RowKey)));
    window->press(ViewButton::Tick);
}

} // namespace cirrovault

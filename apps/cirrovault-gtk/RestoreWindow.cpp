#include "RestoreWindow.h"

#include <algorithm>

#include "GtkDialogs.h"
#include "TaskFormat.h"
#include "platform/os/FileSystem.h"
#include "support/GlobalFunction.h"

namespace cirrovault::desktop {

using cli::TaskFormat;
using cli::text;

namespace {

void fill(GtkWidget* list, const std::vector<std::string>& lines) {
    while (GtkWidget* child = gtk_widget_get_first_child(list))
        gtk_list_box_remove(GTK_LIST_BOX(list), child);
    for (const auto& line : lines) {
        GtkWidget* label = gtk_label_new(line.c_str());
        gtk_label_set_xalign(GTK_LABEL(label), 0);
        gtk_widget_set_margin_top(label, 3);
        gtk_widget_set_margin_bottom(label, 3);
        gtk_list_box_append(GTK_LIST_BOX(list), label);
    }
}

int selectedIndex(GtkWidget* list) {
    GtkListBoxRow* row = gtk_list_box_get_selected_row(GTK_LIST_BOX(list));
    return row ? gtk_list_box_row_get_index(row) : -1;
}

GtkWidget* scrolled(GtkWidget* child, int width) {
    GtkWidget* scroller = gtk_scrolled_window_new();
    gtk_scrolled_window_set_child(GTK_SCROLLED_WINDOW(scroller), child);
    gtk_widget_set_size_request(scroller, width, 240);
    gtk_widget_set_vexpand(scroller, TRUE);
    gtk_widget_set_hexpand(scroller, TRUE);
    return scroller;
}

GtkWidget* addButton(GtkWidget* box, const std::string& label, GCallback clicked, gpointer self) {
    GtkWidget* button = gtk_button_new_with_label(label.c_str());
    g_signal_connect_swapped(button, "clicked", clicked, self);
    gtk_box_append(GTK_BOX(box), button);
    return button;
}

} // namespace

RestoreWindow::RestoreWindow(DesktopSession& session, const CBackupManage::TaskPtr& task, GtkWindow* parent)
    : session_(session), task_(task) {
    where_ = std::make_unique<cli::RestoreSupport>(session_.host(), task_);
    window_ = gtk_window_new();
    gtk_window_set_title(GTK_WINDOW(window_), text("DesktopRestoreTitle", "Restore from \"{}\"", task_->name).c_str());
    gtk_window_set_default_size(GTK_WINDOW(window_), 760, 420);
    if (parent)
        gtk_window_set_transient_for(GTK_WINDOW(window_), parent);
    gtk_window_set_hide_on_close(GTK_WINDOW(window_), TRUE);

    GtkWidget* box = GtkDialogs::column(12);

    GtkWidget* lists = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 8);
    fileList_ = gtk_list_box_new();
    versionList_ = gtk_list_box_new();
    g_signal_connect_swapped(fileList_, "row-selected", G_CALLBACK(+[](RestoreWindow* self) { self->showVersions(); }),
                             this);
    GtkWidget* left = gtk_box_new(GTK_ORIENTATION_VERTICAL, 4);
    gtk_box_append(GTK_BOX(left), gtk_label_new(text("DesktopStoredFiles", "Stored files").c_str()));
    gtk_box_append(GTK_BOX(left), scrolled(fileList_, 360));
    GtkWidget* right = gtk_box_new(GTK_ORIENTATION_VERTICAL, 4);
    gtk_box_append(GTK_BOX(right), gtk_label_new(text("DesktopVersions", "Versions by date").c_str()));
    gtk_box_append(GTK_BOX(right), scrolled(versionList_, 360));
    gtk_box_append(GTK_BOX(lists), left);
    gtk_box_append(GTK_BOX(lists), right);
    gtk_box_append(GTK_BOX(box), lists);

    GtkWidget* where = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 8);
    original_ = gtk_check_button_new_with_label(text("DesktopOriginalPlace", "Original place").c_str());
    GtkWidget* other = gtk_check_button_new_with_label(text("DesktopOtherFolder", "Another folder:").c_str());
    gtk_check_button_set_group(GTK_CHECK_BUTTON(other), GTK_CHECK_BUTTON(original_));
    gtk_check_button_set_active(GTK_CHECK_BUTTON(original_), TRUE);
    folder_ = gtk_entry_new();
    gtk_widget_set_hexpand(folder_, TRUE);
    gtk_box_append(GTK_BOX(where), original_);
    gtk_box_append(GTK_BOX(where), other);
    gtk_box_append(GTK_BOX(where), folder_);
    addButton(where, text("DesktopChooseFolder", "Choose..."), G_CALLBACK(+[](RestoreWindow* self) {
                  std::string folder = GtkDialogs::chooseFolder(self->window(), text("DesktopRestoreTo", "Restore to"));
                  if (!folder.empty())
                      self->setDestination(folder);
              }),
              this);
    gtk_box_append(GTK_BOX(box), where);

    GtkWidget* actions = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 8);
    overwrite_ = gtk_check_button_new_with_label(text("DesktopOverwrite", "Replace files that exist").c_str());
    gtk_widget_set_hexpand(overwrite_, TRUE);
    gtk_box_append(GTK_BOX(actions), overwrite_);
    addButton(actions, text("DesktopRestoreMissing", "Restore missing files"),
              G_CALLBACK(+[](RestoreWindow* self) { self->restoreMissing(); }), this);
    addButton(actions, text("DesktopRestoreSelected", "Restore this version"),
              G_CALLBACK(+[](RestoreWindow* self) { self->restoreSelected(); }), this);
    gtk_box_append(GTK_BOX(box), actions);

    status_ = gtk_label_new("");
    gtk_label_set_xalign(GTK_LABEL(status_), 0);
    gtk_label_set_wrap(GTK_LABEL(status_), TRUE);
    gtk_box_append(GTK_BOX(box), status_);
    gtk_window_set_child(GTK_WINDOW(window_), box);
    showFiles();
    gtk_window_present(GTK_WINDOW(window_));
}

RestoreWindow::~RestoreWindow() {
    if (window_)
        gtk_window_destroy(GTK_WINDOW(window_));
}

void RestoreWindow::showFiles() {
    try {
        files_ = where_->files();
    } catch (const cli::CliError& error) {
        files_.clear();
        gtk_label_set_text(GTK_LABEL(status_), error.what());
    }
    fill(fileList_, files());
}

std::vector<std::string> RestoreWindow::files() const {
    std::vector<std::string> names;
    for (const auto& [rel, info] : files_)
        names.push_back(rel);
    return names;
}

bool RestoreWindow::selectFile(const std::string& relativePath) {
    for (size_t i = 0; i < files_.size(); ++i)
        if (files_[i].first == relativePath) {
            gtk_list_box_select_row(GTK_LIST_BOX(fileList_),
                                    gtk_list_box_get_row_at_index(GTK_LIST_BOX(fileList_), static_cast<int>(i)));
            return true;
        }
    return false;
}

void RestoreWindow::showVersions() {
    versions_.clear();
    int index = selectedIndex(fileList_);
    if (index >= 0) {
        const auto& [rel, current] = files_[static_cast<size_t>(index)];
        versions_.push_back({text("DesktopCurrentVersion", "Current    {}    {}", TaskFormat::dateText(current.modifyTime),
                                  GlobalFunction::stringFromFileSize(current.iSize)),
                             current});
        std::vector<cli::FileVersion> older = where_->versions(rel);
        std::sort(older.begin(), older.end(), [](const auto& a, const auto& b) {
            return a.info.modifyTime.timeIntervalSince1970() > b.info.modifyTime.timeIntervalSince1970();
        });
        for (const auto& v : older)
            versions_.push_back({text("DesktopOlderVersion", "Version {}    {}    {}", v.number,
                                      TaskFormat::dateText(v.info.modifyTime),
                                      GlobalFunction::stringFromFileSize(v.info.iSize)),
                                 v.info});
    }
    std::vector<std::string> rows = versionRows();
    fill(versionList_, rows);
    if (!rows.empty())
        selectVersionRow(0);
}

std::vector<std::string> RestoreWindow::versionRows() const {
    std::vector<std::string> rows;
    for (const auto& v : versions_)
        rows.push_back(v.label);
    return rows;
}

bool RestoreWindow::selectVersionRow(size_t index) {
    GtkListBoxRow* row = gtk_list_box_get_row_at_index(GTK_LIST_BOX(versionList_), static_cast<int>(index));
    if (!row)
        return false;
    gtk_list_box_select_row(GTK_LIST_BOX(versionList_), row);
    return true;
}

void RestoreWindow::setDestination(const std::string& folder) {
    gtk_editable_set_text(GTK_EDITABLE(folder_), folder.c_str());
    gtk_check_button_set_active(GTK_CHECK_BUTTON(original_), folder.empty());
    if (!folder.empty())
        for (GtkWidget* w = gtk_widget_get_next_sibling(original_); w; w = gtk_widget_get_next_sibling(w))
            if (GTK_IS_CHECK_BUTTON(w)) {
                gtk_check_button_set_active(GTK_CHECK_BUTTON(w), TRUE);
                break;
            }
}

void RestoreWindow::setOverwrite(bool overwrite) {
    gtk_check_button_set_active(GTK_CHECK_BUTTON(overwrite_), overwrite);
}

std::string RestoreWindow::destination() const {
    if (gtk_check_button_get_active(GTK_CHECK_BUTTON(original_)))
        return where_->localTop();
    return gtk_editable_get_text(GTK_EDITABLE(folder_));
}

std::string RestoreWindow::passPhrase(const std::string& sample, bool& cancelled) {
    cli::PassPhraseOptions options;
    GtkWindow* parent = window();
    options.ask = [parent](const std::string& question) {
        return GtkDialogs::askSecret(parent, text("DesktopPassPhraseTitle", "Pass phrase"), question);
    };
    try {
        return where_->passPhrase(options, sample);
    } catch (const cli::CliError& error) {
        cancelled = true;
        summary_ = error.what();
        return "";
    }
}

cli::RestoreOutcome RestoreWindow::run(const std::vector<cli::RestoreItem>& items, const std::string& to, bool overwrite) {
    cli::RestoreOutcome outcome;
    if (busy_ || items.empty() || to.empty()) {
        summary_ = to.empty() ? text("DesktopNoDestination", "Say where to restore to.")
                              : text("DesktopNothingToRestore", "Nothing to restore.");
        gtk_label_set_text(GTK_LABEL(status_), summary_.c_str());
        return outcome;
    }
    if (!FileSystem::isDirectoryFollowingLinks(to) && !FileSystem::createDirectories(to)) {
        summary_ = text("CliNotAFolder", "{} is not a folder", to);
        gtk_label_set_text(GTK_LABEL(status_), summary_.c_str());
        return outcome;
    }
    bool cancelled = false;
    const cli::RestoreItem* sample = &*std::min_element(
        items.begin(), items.end(), [](const auto& a, const auto& b) { return a.size < b.size; });
    std::string phrase = passPhrase(sample->server, cancelled);
    if (cancelled) {
        gtk_label_set_text(GTK_LABEL(status_), summary_.c_str());
        outcome.cancelled = true;
        return outcome;
    }
    busy_ = true;
    // The restore-progress window runs modally here; its loop keeps the windows drawn.
    outcome = where_->restoreItems(items, to, overwrite, phrase, session_.host().backend());
    busy_ = false;
    summary_ = text("DesktopRestoreSummary", "Restored {}, kept {} that exist, {} failed{}.",
                    TaskFormat::countText(outcome.restored.size(), "file", "files"), outcome.kept.size(),
                    outcome.failed.size(), outcome.cancelled ? text("DesktopCancelledTail", "; cancelled") : "");
    for (const auto& failed : outcome.failed)
        summary_ += "\n" + failed;
    gtk_label_set_text(GTK_LABEL(status_), summary_.c_str());
    return outcome;
}

cli::RestoreOutcome RestoreWindow::restoreSelected() {
    int file = selectedIndex(fileList_);
    int version = selectedIndex(versionList_);
    if (file < 0 || version < 0 || static_cast<size_t>(version) >= versions_.size())
        return run({}, destination(), false);
    const std::string& rel = files_[static_cast<size_t>(file)].first;
    const PathInfo& info = versions_[static_cast<size_t>(version)].info;
    std::string to = destination();
    return run({{info.path, to + "/" + rel, info.iSize, info.modifyTime}}, to,
               gtk_check_button_get_active(GTK_CHECK_BUTTON(overwrite_)));
}

cli::RestoreOutcome RestoreWindow::restoreMissing() {
    std::string to = where_->localTop();
    std::vector<cli::RestoreItem> items;
    for (const auto& [rel, info] : files_)
        if (!FileSystem::exists(to + "/" + rel))
            items.push_back({info.path, to + "/" + rel, info.iSize, info.modifyTime});
    return run(items, to, false);
}

} // namespace cirrovault::desktop

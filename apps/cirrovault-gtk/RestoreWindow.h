#pragma once

#include <gtk/gtk.h>

#include <memory>
#include <string>
#include <vector>

#include "DesktopSession.h"
#include "RestoreSupport.h"

namespace cirrovault::desktop {

// The restore browser of one task: its stored files, each file's current copy and older
// versions by date, and where they go (the original place or another folder). Restores
// run under the restore-progress window. Main thread only.
class RestoreWindow {
public:
    RestoreWindow(DesktopSession& session, const CBackupManage::TaskPtr& task, GtkWindow* parent);
    ~RestoreWindow();
    RestoreWindow(const RestoreWindow&) = delete;
    RestoreWindow& operator=(const RestoreWindow&) = delete;

    GtkWindow* window() const { return GTK_WINDOW(window_); }
    // The stored files, relative to the folder above the task's first source.
    std::vector<std::string> files() const;
    bool selectFile(const std::string& relativePath);
    // The rows of the selected file: "current" first, then its older versions, newest first.
    std::vector<std::string> versionRows() const;
    bool selectVersionRow(size_t index);
    // "" = the original place.
    void setDestination(const std::string& folder);
    void setOverwrite(bool overwrite);

    // Restores the selected file as the selected row has it.
    cli::RestoreOutcome restoreSelected();
    // Every stored file whose original is missing, to the original place; nothing
    // existing is touched.
    cli::RestoreOutcome restoreMissing();
    const std::string& lastSummary() const { return summary_; }

private:
    struct Version {
        std::string label;
        PathInfo info;
    };
    void showFiles();
    void showVersions();
    cli::RestoreOutcome run(const std::vector<cli::RestoreItem>& items, const std::string& to, bool overwrite);
    std::string destination() const;
    std::string passPhrase(const std::string& sample, bool& cancelled);

    DesktopSession& session_;
    CBackupManage::TaskPtr task_;
    std::unique_ptr<cli::RestoreSupport> where_;
    std::vector<std::pair<std::string, PathInfo>> files_;
    std::vector<Version> versions_;
    GtkWidget* window_ = nullptr;
    GtkWidget* fileList_ = nullptr;
    GtkWidget* versionList_ = nullptr;
    GtkWidget* original_ = nullptr; // radio: the original place
    GtkWidget* folder_ = nullptr;   // entry: another folder
    GtkWidget* overwrite_ = nullptr;
    GtkWidget* status_ = nullptr;
    std::string summary_;
    bool busy_ = false;
};

} // namespace cirrovault::desktop

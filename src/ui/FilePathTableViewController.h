#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "platform/view/ViewBackend.h"
#include "support/FMLocFileManager.h"
#include "support/FileAttributeNode.h"

namespace cirrovault {

// The local folder browser of the new-task wizard: the rows of one folder (hidden items
// left out, folders first, then by name), a highlighted row, opening a folder, going up
// to the enclosing one, and ticking rows. Ticks belong to paths, so they survive moving
// between folders; the ticked paths are what the wizard backs up. Main thread only: the
// window's buttons act on the thread that presses them, which is the modal one.
class FilePathTableViewController {
public:
    // Loads the "FilePathBrowser" layout on the back end (the shared one when null).
    explicit FilePathTableViewController(std::shared_ptr<ViewBackend> backend = nullptr);
    FilePathTableViewController(const FilePathTableViewController&) = delete;
    FilePathTableViewController& operator=(const FilePathTableViewController&) = delete;

    // Shows the folder's rows. A folder that cannot be read shows no rows, says why in
    // the status line and the system log, and answers false.
    bool openFolder(const std::string& path);
    // Opens the folder of the row (a folder, or a link to one); false for anything else.
    bool openRow(size_t index);
    bool openParent();
    // Rereads the current folder (after a change on disk).
    bool reloadData();

    // Ticks or unticks the row; false when there is no such row.
    bool tickRow(size_t index);
    bool setTicked(size_t index, bool ticked);
    // The ticked paths, in the order they were ticked.
    std::vector<std::string> getNeedBackupFilePath() const { return ticked_; }
    void clearTicks();

    // The highlighted row; moves stop at the ends of the list.
    size_t cursor() const { return cursor_; }
    void moveCursor(int delta);

    const std::vector<FileAttributeNode>& rows() const { return rows_; }
    const std::string& currentFolder() const { return currentFolder_; }
    // The path control: the current folder and every folder above it, innermost first.
    std::vector<std::string> pathComponents() const;

    // Runs the window modally until Done or the window closes.
    void runModal();
    const std::shared_ptr<ViewWindow>& window() const { return window_; }

private:
    // The highlighted row as the window has it (the cursor outlet).
    size_t highlightedRow();
    bool isTicked(const std::string& path) const;
    bool rowIsFolder(const FileAttributeNode& row) const;
    void showRows();
    void showCursor();

    std::shared_ptr<ViewBackend> backend_;
    std::shared_ptr<ViewWindow> window_;
    FMLocFileManager fileManager_;
    std::string currentFolder_;
    std::vector<FileAttributeNode> rows_;
    std::vector<std::string> ticked_;
    size_t cursor_ = 0;
};

} // namespace cirrovault

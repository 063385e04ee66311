#include "ui/FilePathTableViewController.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <system_error>

#include "platform/framework/LoadString.h"
#include "platform/os/FileSystem.h"
#include "platform/os/Guarded.h"
#include "platform/os/SystemLog.h"
#include "platform/view/ViewLayout.h"
#include "support/CFileInfo.h"
#include "ui/ImageAndTextCell.h"

namespace cirrovault {

namespace {

// Rows are drawn for a common terminal width; a narrower one cuts them.
constexpr int RowWidth = 78;

std::string lowered(const std::string& text) {
    std::string out = text;
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

std::string linkTarget(const std::string& path) {
    std::error_code error;
    auto target = std::filesystem::read_symlink(path, error);
    return error ? std::string() : target.string();
}

} // namespace

FilePathTableViewController::FilePathTableViewController(std::shared_ptr<ViewBackend> backend)
    : backend_(backend ? std::move(backend) : ViewBackend::shared()),
      window_(backend_->createWindow(ViewLayout::FilePathBrowser)) {
    window_->setText(ViewOutlet::Title, LoadString::GetValueByKey("IDS_MSGSELFOLDER", ""));
    window_->setAction(ViewButton::Up, [this] { moveCursor(-1); });
    window_->setAction(ViewButton::Down, [this] { moveCursor(1); });
    window_->setAction(ViewButton::Open, [this] { openRow(highlightedRow()); });
    window_->setAction(ViewButton::Parent, [this] { openParent(); });
    window_->setAction(ViewButton::Tick, [this] { tickRow(highlightedRow()); });
    window_->setAction(ViewButton::Done, [this] { backend_->abortModal(*window_); });
}

bool FilePathTableViewController::rowIsFolder(const FileAttributeNode& row) const {
    return FileSystem::isDirectoryFollowingLinks(row.filePath);
}

bool FilePathTableViewController::openFolder(const std::string& path) {
    return guarded("Error: FilePathTableViewController::openFolder", false, [&] {
        std::string folder = path.size() > 1 && path.back() == '/' ? path.substr(0, path.size() - 1) : path;
        currentFolder_ = folder;
        rows_.clear();
        cursor_ = 0;
        auto names = FMLocFileManager::GetCurSubPathURLArray(folder);
        if (!names) {
            std::string reason = FileSystem::lastErrorText();
            SystemLog::write("Error: cannot read folder " + folder + ": " + reason);
            window_->setText(ViewOutlet::Status, "Cannot read " + folder + ": " + reason);
            showRows();
            return false;
        }
        std::vector<std::pair<bool, FileAttributeNode>> found;
        for (const std::string& name : *names) {
            std::string full = CFileInfo::MacPathAppend(folder, name);
            if (!FMLocFileManager::ShouldDisplay(full))
                continue;
            auto record = fileManager_.GetFileAttribute(full);
            if (record.empty())
                continue; // gone since the listing
            FileAttributeNode node(record["Name"], record["DateModified"], record["Size"], record["Kind"],
                                   folder, full,
                                   record["Type"] == "SymbolicLink" ? linkTarget(full) : std::string());
            node.bSelect = isTicked(full);
            found.emplace_back(rowIsFolder(node), std::move(node));
        }
        std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) {
            if (a.first != b.first)
                return a.first;
            std::string left = lowered(a.second.name), right = lowered(b.second.name);
            return left != right ? left < right : a.second.name < b.second.name;
        });
        for (auto& entry : found)
            rows_.push_back(std::move(entry.second));
        window_->setText(ViewOutlet::Status, rows_.empty() ? "(empty folder)" : "");
        showRows();
        return true;
    });
}

bool FilePathTableViewController::openRow(size_t index) {
    if (index >= rows_.size() || !rowIsFolder(rows_[index]))
        return false;
    return openFolder(rows_[index].filePath);
}

bool FilePathTableViewController::openParent() {
    if (currentFolder_.empty() || currentFolder_ == "/")
        return false;
    std::string child = currentFolder_;
    std::string parent = CFileInfo::getMacParentFolder(currentFolder_);
    if (parent.empty())
        return false;
    bool opened = openFolder(parent);
    // Keep the folder we came from highlighted, as a browser does.
    for (size_t i = 0; i < rows_.size(); ++i)
        if (rows_[i].filePath == child) {
            cursor_ = i;
            showCursor();
        }
    return opened;
}

bool FilePathTableViewController::reloadData() {
    size_t keep = cursor_;
    bool opened = openFolder(currentFolder_);
    if (!rows_.empty()) {
        cursor_ = std::min(keep, rows_.size() - 1);
        showCursor();
    }
    return opened;
}

bool FilePathTableViewController::isTicked(const std::string& path) const {
    return std::find(ticked_.begin(), ticked_.end(), path) != ticked_.end();
}

bool FilePathTableViewController::tickRow(size_t index) {
    if (index >= rows_.size())
        return false;
    return setTicked(index, !rows_[index].bSelect);
}

bool FilePathTableViewController::setTicked(size_t index, bool ticked) {
    if (index >= rows_.size())
        return false;
    FileAttributeNode& row = rows_[index];
    row.bSelect = ticked;
    if (ticked && !isTicked(row.filePath))
        ticked_.push_back(row.filePath);
    else if (!ticked)
        ticked_.erase(std::remove(ticked_.begin(), ticked_.end(), row.filePath), ticked_.end());
    showRows();
    return true;
}

void FilePathTableViewController::clearTicks() {
    ticked_.clear();
    for (FileAttributeNode& row : rows_)
        row.bSelect = false;
    showRows();
}

size_t FilePathTableViewController::highlightedRow() {
    // A pointer may have moved the highlight in the window itself.
    double row = window_->value(ViewOutlet::Cursor);
    if (row >= 0 && static_cast<size_t>(row) < rows_.size())
        cursor_ = static_cast<size_t>(row);
    return cursor_;
}

void FilePathTableViewController::moveCursor(int delta) {
    if (rows_.empty())
        return;
    long next = static_cast<long>(highlightedRow()) + delta;
    next = std::clamp(next, 0L, static_cast<long>(rows_.size()) - 1);
    cursor_ = static_cast<size_t>(next);
    showCursor();
}

std::vector<std::string> FilePathTableViewController::pathComponents() const {
    std::vector<std::string> folders;
    for (std::string folder = currentFolder_; !folder.empty();) {
        folders.push_back(folder);
        if (folder == "/")
            break;
        folder = CFileInfo::getMacParentFolder(folder);
    }
    return folders;
}

void FilePathTableViewController::runModal() {
    backend_->runModal(window_);
}

void FilePathTableViewController::showRows() {
    std::vector<std::string> lines;
    lines.reserve(rows_.size());
    for (const FileAttributeNode& row : rows_)
        lines.push_back(ImageAndTextCell::drawRow(row, RowWidth));
    window_->setText(ViewOutlet::CurrentPath, currentFolder_);
    window_->setItems(ViewOutlet::Rows, lines);
    showCursor();
}

void FilePathTableViewController::showCursor() {
    window_->setValue(ViewOutlet::Cursor, static_cast<double>(cursor_));
}

} // namespace cirrovault

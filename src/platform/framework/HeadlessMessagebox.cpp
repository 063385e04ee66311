#include "platform/framework/HeadlessMessagebox.h"

namespace cirrovault {

int HeadlessMessagebox::defaultAnswerForStyle(int style) {
    switch (style) {
    case MessageboxStyle::TryAgainOrGiveUp: return MessageboxAnswer::GiveUp;
    case MessageboxStyle::YesNo: return MessageboxAnswer::No;
    case MessageboxStyle::RetryCancel: return MessageboxAnswer::Cancel;
    default: return MessageboxAnswer::Ok;
    }
}

int HeadlessMessagebox::nextAnswer(int fallback) {
    if (queued_.empty())
        return fallback;
    int answer = queued_.front();
    queued_.pop_front();
    return answer;
}

int HeadlessMessagebox::showMessage(const std::string& title, const std::string& informativeText,
                                    int messageboxStyle) {
    std::lock_guard lock(mutex_);
    auto configured = defaults_.find(messageboxStyle);
    int answer = nextAnswer(configured != defaults_.end() ? configured->second
                                                           : defaultAnswerForStyle(messageboxStyle));
    shown_.push_back(Shown{Kind::Message, title, informativeText, messageboxStyle, false, answer, {}});
    return answer;
}

int HeadlessMessagebox::showStorageOrder(const std::string& title, const std::string& message,
                                         bool& checkBox, int dialogStyle) {
    std::lock_guard lock(mutex_);
    int answer = nextAnswer(storageOrderDefault_);
    shown_.push_back(Shown{Kind::StorageOrder, title, message, dialogStyle, checkBox, answer, {}});
    return answer; // nobody ticks the box here
}

std::string HeadlessMessagebox::chooseFolder(const std::string& title) {
    std::lock_guard lock(mutex_);
    shown_.push_back(Shown{Kind::FolderPanel, title, {}, 0, false, 0, folderPanelPath_});
    return folderPanelPath_;
}

void HeadlessMessagebox::queueAnswer(int answer) {
    std::lock_guard lock(mutex_);
    queued_.push_back(answer);
}

void HeadlessMessagebox::setDefaultAnswer(int style, int answer) {
    std::lock_guard lock(mutex_);
    defaults_[style] = answer;
}

void HeadlessMessagebox::setStorageOrderDefault(int answer) {
    std::lock_guard lock(mutex_);
    storageOrderDefault_ = answer;
}

void HeadlessMessagebox::setFolderPanelPath(const std::string& path) {
    std::lock_guard lock(mutex_);
    folderPanelPath_ = path;
}

std::vector<HeadlessMessagebox::Shown> HeadlessMessagebox::shown() const {
    std::lock_guard lock(mutex_);
    return shown_;
}

void HeadlessMessagebox::clearShown() {
    std::lock_guard lock(mutex_);
    shown_.clear();
}

} // namespace cirrovault

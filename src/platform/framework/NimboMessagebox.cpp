#include "platform/framework/NimboMessagebox.h"

#include <exception>
#include <mutex>

#include "platform/framework/HeadlessMessagebox.h"
#include "platform/os/SystemLog.h"

namespace cirrovault {

namespace {
std::mutex presenterMutex;
std::shared_ptr<NimboMessagebox::Presenter> installedPresenter; // guarded by presenterMutex
} // namespace

void NimboMessagebox::setPresenter(std::shared_ptr<Presenter> presenter) {
    std::lock_guard lock(presenterMutex);
    installedPresenter = std::move(presenter);
}

std::shared_ptr<NimboMessagebox::Presenter> NimboMessagebox::presenter() {
    std::lock_guard lock(presenterMutex);
    // With no display installed the default answers stand in for the user.
    if (!installedPresenter)
        installedPresenter = std::make_shared<HeadlessMessagebox>();
    return installedPresenter;
}

NimboMessagebox& NimboMessagebox::InitWithMessage(const std::string& title,
                                                  const std::string& informativeText,
                                                  int messageboxStyle) {
    title_ = title;
    informativeText_ = informativeText;
    messageboxStyle_ = messageboxStyle;
    return *this;
}

int NimboMessagebox::runModal() const {
    try {
        // The presenter is held for the whole dialog, so replacing it meanwhile is safe.
        std::shared_ptr<Presenter> shown = presenter();
        return shown->showMessage(title_, informativeText_, messageboxStyle_);
    } catch (const std::exception&) {
        SystemLog::write("Error: NimboMessagebox::runModal");
        return HeadlessMessagebox::defaultAnswerForStyle(messageboxStyle_);
    }
}

int NimboMessagebox::runStorageOrderDialog(const std::string& title, const std::string& message,
                                           bool& checkBox, int dialogStyle) {
    try {
        std::shared_ptr<Presenter> shown = presenter();
        return shown->showStorageOrder(title, message, checkBox, dialogStyle);
    } catch (const std::exception&) {
        SystemLog::write("Error: NimboMessagebox::runStorageOrderDialog");
        return 0;
    }
}

std::string NimboMessagebox::runFolderPanel(const std::string& title) {
    try {
        std::shared_ptr<Presenter> shown = presenter();
        return shown->chooseFolder(title);
    } catch (const std::exception&) {
        SystemLog::write("Error: NimboMessagebox::runFolderPanel");
        return "";
    }
}

} // namespace cirrovault

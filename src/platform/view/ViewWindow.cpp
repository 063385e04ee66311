#include "platform/view/ViewWindow.h"

#include "platform/view/ViewLayout.h"

namespace cirrovault {

ViewWindow::ViewWindow(std::string layout, Observer* observer)
    : layout_(std::move(layout)), observer_(observer) {}

void ViewWindow::changed(const std::string& outlet, const std::string& text) {
    if (observer_)
        observer_->windowChanged(*this, outlet, text);
}

void ViewWindow::setText(const std::string& outlet, const std::string& text) {
    {
        std::lock_guard lock(mutex_);
        texts_[outlet] = text;
        ++revision_;
    }
    changed(outlet, text);
}

std::string ViewWindow::text(const std::string& outlet) const {
    std::lock_guard lock(mutex_);
    auto found = texts_.find(outlet);
    return found == texts_.end() ? std::string() : found->second;
}

void ViewWindow::setValue(const std::string& outlet, double value) {
    {
        std::lock_guard lock(mutex_);
        values_[outlet] = value;
        ++revision_;
    }
    changed(outlet, std::to_string(value));
}

double ViewWindow::value(const std::string& outlet) const {
    std::lock_guard lock(mutex_);
    auto found = values_.find(outlet);
    return found == values_.end() ? 0.0 : found->second;
}

void ViewWindow::setItems(const std::string& outlet, const std::vector<std::string>& items) {
    std::string joined;
    for (size_t i = 0; i < items.size(); ++i)
        joined += (i == 0 ? "" : "\n") + items[i];
    {
        std::lock_guard lock(mutex_);
        items_[outlet] = items;
        ++revision_;
    }
    changed(outlet, joined);
}

std::vector<std::string> ViewWindow::items(const std::string& outlet) const {
    std::lock_guard lock(mutex_);
    auto found = items_.find(outlet);
    return found == items_.end() ? std::vector<std::string>() : found->second;
}

void ViewWindow::setEnabled(const std::string& outlet, bool enabled) {
    {
        std::lock_guard lock(mutex_);
        if (enabled)
            disabled_.erase(outlet);
        else
            disabled_.insert(outlet);
        ++revision_;
    }
    changed(outlet + ".enabled", enabled ? "1" : "0");
}

bool ViewWindow::isEnabled(const std::string& outlet) const {
    std::lock_guard lock(mutex_);
    return disabled_.count(outlet) == 0;
}

void ViewWindow::selectTab(int index) {
    {
        std::lock_guard lock(mutex_);
        tab_ = index;
        ++revision_;
    }
    changed("tab", std::to_string(index));
}

int ViewWindow::selectedTab() const {
    std::lock_guard lock(mutex_);
    return tab_;
}

void ViewWindow::setSpinning(bool spinning) {
    {
        std::lock_guard lock(mutex_);
        spinning_ = spinning;
        ++revision_;
    }
    changed("spinner", spinning ? "1" : "0");
}

bool ViewWindow::isSpinning() const {
    std::lock_guard lock(mutex_);
    return spinning_;
}

void ViewWindow::setAction(const std::string& button, std::function<void()> action) {
    std::lock_guard lock(mutex_);
    actions_[button] = std::move(action);
}

std::function<void()> ViewWindow::actionFor(const std::string& name) const {
    std::lock_guard lock(mutex_);
    auto found = actions_.find(name);
    return found == actions_.end() ? std::function<void()>() : found->second;
}

void ViewWindow::press(const std::string& button) {
    {
        std::lock_guard lock(mutex_);
        ++presses_[button];
        ++revision_;
    }
    if (observer_)
        observer_->buttonPressed(*this, button);
    // The action may write to this window again, so no lock is held while it runs.
    if (auto action = actionFor(button))
        action();
}

int ViewWindow::pressCount(const std::string& button) const {
    std::lock_guard lock(mutex_);
    auto found = presses_.find(button);
    return found == presses_.end() ? 0 : found->second;
}

void ViewWindow::raise(const std::string& event) {
    if (auto action = actionFor(event))
        action();
}

void ViewWindow::close() {
    {
        std::lock_guard lock(mutex_);
        if (closed_)
            return;
        closed_ = true;
    }
    raise(ViewEvent::WillClose);
    {
        std::lock_guard lock(mutex_);
        ++revision_;
    }
    changed("closed", "1");
}

bool ViewWindow::isClosed() const {
    std::lock_guard lock(mutex_);
    return closed_;
}

unsigned long ViewWindow::revision() const {
    std::lock_guard lock(mutex_);
    return revision_;
}

} // namespace cirrovault

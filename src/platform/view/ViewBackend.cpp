#include "platform/view/ViewBackend.h"

#include <algorithm>
#include <chrono>
#include <exception>

#include "platform/os/Clock.h"
#include "platform/os/SystemLog.h"
#include "platform/view/ViewLayout.h"
#include "platform/view/headless/HeadlessViewBackend.h"

namespace cirrovault {

namespace {
std::mutex sharedMutex;
std::shared_ptr<ViewBackend> sharedBackend; // guarded by sharedMutex
} // namespace

std::shared_ptr<ViewBackend> ViewBackend::shared() {
    std::lock_guard lock(sharedMutex);
    if (!sharedBackend)
        sharedBackend = std::make_shared<HeadlessViewBackend>();
    return sharedBackend;
}

void ViewBackend::setShared(std::shared_ptr<ViewBackend> backend) {
    std::lock_guard lock(sharedMutex);
    sharedBackend = std::move(backend);
}

void ViewBackend::pauseForFigures(double seconds) {
    // Hosts without such a window go on at once (a departure kept on purpose: a
    // fixed wait there only delays the user).
    if (shared()->showsFiguresInWindow())
        Clock::shared().sleepFor(seconds);
}

std::shared_ptr<ViewWindow> ViewBackend::createWindow(const std::string& layout) {
    auto window = std::make_shared<ViewWindow>(layout, this);
    windowCreated(*window);
    return window;
}

void ViewBackend::runModal(const std::shared_ptr<ViewWindow>& window) {
    if (!window || window->isClosed())
        return;
    auto session = std::make_shared<Session>();
    session->window = window;
    {
        std::lock_guard lock(mutex_);
        sessions_.push_back(session);
    }
    cv_.notify_all();
    try {
        window->raise(ViewEvent::Shown);
        modalStarted(*window);
        double tick = tickSeconds();
        bool iterates = iteratesModal();
        std::unique_lock lock(mutex_);
        while (!session->aborted && !window->isClosed()) {
            if (iterates) {
                lock.unlock();
                modalIterate(*window);
                lock.lock();
            } else if (tick > 0) {
                cv_.wait_for(lock, std::chrono::duration<double>(tick));
                lock.unlock();
                modalTick(*window);
                lock.lock();
            } else {
                cv_.wait(lock);
            }
        }
    } catch (const std::exception&) {
        SystemLog::write("Error: ViewBackend::runModal");
    }
    {
        std::lock_guard lock(mutex_);
        sessions_.erase(std::remove(sessions_.begin(), sessions_.end(), session), sessions_.end());
    }
    cv_.notify_all();
    try {
        modalEnded(*window);
    } catch (const std::exception&) {
        SystemLog::write("Error: ViewBackend::runModal");
    }
}

void ViewBackend::abortModal(const ViewWindow& window) {
    {
        std::lock_guard lock(mutex_);
        for (auto& session : sessions_)
            if (session->window.get() == &window)
                session->aborted = true;
    }
    cv_.notify_all();
    wakeModal();
}

void ViewBackend::abortModal() {
    {
        std::lock_guard lock(mutex_);
        if (!sessions_.empty())
            sessions_.back()->aborted = true;
    }
    cv_.notify_all();
    wakeModal();
}

std::shared_ptr<ViewWindow> ViewBackend::modalWindow() const {
    std::lock_guard lock(mutex_);
    return sessions_.empty() ? nullptr : sessions_.back()->window;
}

bool ViewBackend::waitUntilModal(const ViewWindow& window) {
    std::unique_lock lock(mutex_);
    for (;;) {
        if (!sessions_.empty() && sessions_.back()->window.get() == &window)
            return true;
        if (window.isClosed())
            return false;
        cv_.wait(lock);
    }
}

void ViewBackend::windowChanged(ViewWindow& window, const std::string& outlet,
                                const std::string& text) {
    changedOn(window, outlet, text);
    // Wakes a modal loop (or waitUntilModal) to look again, e.g. after a close.
    { std::lock_guard lock(mutex_); }
    cv_.notify_all();
    wakeModal();
}

void ViewBackend::buttonPressed(ViewWindow& window, const std::string& button) {
    pressedOn(window, button);
}

} // namespace cirrovault

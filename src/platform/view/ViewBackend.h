#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/view/ViewWindow.h"

namespace cirrovault {

// Makes windows from named layouts and runs them modally. The modal loop runs on the
// calling thread (the main thread); any other thread may end it. Modal sessions nest:
// the innermost one is the modal window. Back ends (terminal, headless) draw the
// windows and turn the user's keys into button presses through the hooks below.
class ViewBackend : public ViewWindow::Observer {
public:
    ~ViewBackend() override = default;

    // The process-wide back end; with none installed, a headless one (nothing shown,
    // nothing pressed).
    static std::shared_ptr<ViewBackend> shared();
    static void setShared(std::shared_ptr<ViewBackend> backend);

    std::shared_ptr<ViewWindow> createWindow(const std::string& layout);

    // Runs the window modally until its session is aborted or the window closes. A
    // window already closed returns at once, so a loop ended early never hangs.
    void runModal(const std::shared_ptr<ViewWindow>& window);
    // Ends the modal session of this window (nothing when it is not running modally).
    void abortModal(const ViewWindow& window);
    // Ends the innermost modal session.
    void abortModal();
    // The window of the innermost modal session, or nullptr.
    std::shared_ptr<ViewWindow> modalWindow() const;
    // Waits, without polling, until the window is the modal window; false when the
    // window closed first.
    bool waitUntilModal(const ViewWindow& window);

    // Whether the host shows a run's figures in a window that stays up to be read (a
    // desktop window). The engine's pauses that only let such a window show its last
    // figures are paid there alone: the terminal keeps its last frame on screen by
    // itself, and the command line without a terminal, the daemon and the tests show none.
    virtual bool showsFiguresInWindow() const { return false; }
    // Pauses for the given seconds (on the injected clock) when the shared back end
    // shows figures in a window; returns at once otherwise.
    static void pauseForFigures(double seconds);

    void windowChanged(ViewWindow& window, const std::string& outlet,
                       const std::string& text) override;
    void buttonPressed(ViewWindow& window, const std::string& button) override;

protected:
    // Hooks for the back ends; the modal ones run on the modal thread.
    virtual void windowCreated(ViewWindow&) {}
    virtual void modalStarted(ViewWindow&) {}
    virtual void modalTick(ViewWindow&) {}
    virtual void modalEnded(ViewWindow&) {}
    virtual void changedOn(ViewWindow&, const std::string& /*outlet*/, const std::string& /*text*/) {}
    virtual void pressedOn(ViewWindow&, const std::string& /*button*/) {}
    // Seconds between modal ticks; 0 = no ticks, the loop only waits.
    virtual double tickSeconds() const { return 0; }
    // A toolkit whose own events must keep flowing while a window runs modally (it
    // draws and hears the user on the modal thread) answers true, checked once per
    // session; the loop then calls modalIterate, which blocks until an event arrives
    // or wakeModal is called, instead of waiting itself.
    virtual bool iteratesModal() const { return false; }
    virtual void modalIterate(ViewWindow&) {}
    // Called from any thread whenever a session may have to end; must not block.
    virtual void wakeModal() {}

private:
    struct Session {
        std::shared_ptr<ViewWindow> window;
        bool aborted = false;
    };

    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<std::shared_ptr<Session>> sessions_; // guarded by mutex_; innermost last
};

} // namespace cirrovault

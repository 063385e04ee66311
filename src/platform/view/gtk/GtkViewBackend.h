#pragma once

#include <gtk/gtk.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "platform/view/ViewBackend.h"

namespace cirrovault {

class GtkWindowView;

// Windows for the desktop: each layout drawn as a GTK 4 window. Make it on the GTK
// main thread after GTK is initialised; widgets are touched there only. Workers change
// windows from their own threads: the changes are gathered and drawn by one idle call
// on the main thread. A modal session run on the main thread keeps GTK's events
// flowing (it blocks in the main context, woken by any change or abort); one run on
// another thread waits as usual while the main loop draws. Destroy it on the main thread.
class GtkViewBackend : public ViewBackend {
public:
    GtkViewBackend();
    ~GtkViewBackend() override;
    GtkViewBackend(const GtkViewBackend&) = delete;
    GtkViewBackend& operator=(const GtkViewBackend&) = delete;

    bool showsFiguresInWindow() const override { return true; }
    // The window that modal windows stay above (nullptr for none). Main thread.
    void setParent(GtkWindow* parent);

    // The GTK window that draws the view window, made on first use; nullptr off the
    // main thread. A host may present it itself (a window it does not run modally).
    GtkWindow* gtkWindowOf(const ViewWindow& window);
    // Draws every pending change now. Main thread.
    void flush();

protected:
    void windowCreated(ViewWindow& window) override;
    void modalStarted(ViewWindow& window) override;
    void modalEnded(ViewWindow& window) override;
    void changedOn(ViewWindow& window, const std::string& outlet, const std::string& text) override;
    bool iteratesModal() const override;
    void modalIterate(ViewWindow& window) override;
    void wakeModal() override;

private:
    bool onMainThread() const { return std::this_thread::get_id() == mainThread_; }
    // Queues the window for the next idle draw.
    void schedule(ViewWindow& window);
    static gboolean onIdle(gpointer self);
    // Runs fn on the main thread: now when called there, else at its next turn.
    void onMain(std::function<void()> fn);
    GtkWindowView* viewOf(const std::shared_ptr<ViewWindow>& window);
    void show(const std::shared_ptr<ViewWindow>& window, bool modal);

    const std::thread::id mainThread_;
    GtkWindow* parent_ = nullptr; // main thread only
    // Drawn windows by their ViewWindow; main thread only.
    std::map<const ViewWindow*, std::unique_ptr<GtkWindowView>> views_;
    // Ends callbacks queued on the main thread with this back end gone.
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);

    std::mutex mutex_;
    std::map<const ViewWindow*, std::weak_ptr<ViewWindow>> pending_; // guarded by mutex_
    guint idleSource_ = 0;                                            // guarded by mutex_
};

} // namespace cirrovault

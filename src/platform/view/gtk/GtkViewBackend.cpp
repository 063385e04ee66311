#include "platform/view/gtk/GtkViewBackend.h"

#include "platform/os/SystemLog.h"
#include "platform/view/gtk/GtkWindowView.h"

namespace cirrovault {

namespace {

struct MainJob {
    std::weak_ptr<int> alive;
    std::function<void()> fn;
};

gboolean runMainJob(gpointer data) {
    auto* job = static_cast<MainJob*>(data);
    if (!job->alive.expired())
        job->fn();
    return G_SOURCE_REMOVE;
}

void deleteMainJob(gpointer data) {
    delete static_cast<MainJob*>(data);
}

} // namespace

GtkViewBackend::GtkViewBackend() : mainThread_(std::this_thread::get_id()) {}

GtkViewBackend::~GtkViewBackend() {
    {
        std::lock_guard lock(mutex_);
        if (idleSource_ != 0)
            g_source_remove(idleSource_);
        idleSource_ = 0;
    }
    alive_.reset();
    if (!onMainThread())
        SystemLog::write("Error: GtkViewBackend destroyed off the GTK main thread");
    views_.clear();
}

void GtkViewBackend::setParent(GtkWindow* parent) {
    parent_ = parent;
    for (auto& [window, view] : views_)
        gtk_window_set_transient_for(view->gtkWindow(), parent_);
}

GtkWindow* GtkViewBackend::gtkWindowOf(const ViewWindow& window) {
    if (!onMainThread())
        return nullptr;
    auto shared = std::const_pointer_cast<ViewWindow>(window.weak_from_this().lock());
    GtkWindowView* view = shared ? viewOf(shared) : nullptr;
    return view ? view->gtkWindow() : nullptr;
}

GtkWindowView* GtkViewBackend::viewOf(const std::shared_ptr<ViewWindow>& window) {
    auto& view = views_[window.get()];
    // A view whose window died stands for nothing; a new window may have its address.
    if (!view || !view->alive()) {
        view = std::make_unique<GtkWindowView>(window);
        if (parent_)
            gtk_window_set_transient_for(view->gtkWindow(), parent_);
    }
    return view.get();
}

void GtkViewBackend::schedule(ViewWindow& window) {
    std::weak_ptr<ViewWindow> weak = window.weak_from_this();
    if (weak.expired())
        return; // not made by createWindow: nothing to draw it for
    std::lock_guard lock(mutex_);
    pending_[&window] = std::move(weak);
    // Drawn before the next frame, and as often as the main loop turns, not per change.
    if (idleSource_ == 0)
        idleSource_ = g_idle_add_full(G_PRIORITY_HIGH_IDLE, onIdle, this, nullptr);
}

gboolean GtkViewBackend::onIdle(gpointer self) {
    auto* backend = static_cast<GtkViewBackend*>(self);
    {
        std::lock_guard lock(backend->mutex_);
        backend->idleSource_ = 0;
    }
    backend->flush();
    return G_SOURCE_REMOVE;
}

void GtkViewBackend::flush() {
    if (!onMainThread())
        return;
    std::map<const ViewWindow*, std::weak_ptr<ViewWindow>> pending;
    {
        std::lock_guard lock(mutex_);
        pending.swap(pending_);
    }
    for (auto& [key, weak] : pending) {
        auto window = weak.lock();
        auto found = views_.find(key);
        if (!window)
            continue; // its view, if any, is dropped below
        if (window->isClosed()) {
            // Closed: its GTK window goes too.
            if (found != views_.end())
                views_.erase(found);
            continue;
        }
        if (found != views_.end() && found->second->alive())
            found->second->sync();
        // Windows not shown yet are made when first shown, with their values then.
    }
    std::erase_if(views_, [](const auto& entry) { return !entry.second->alive(); });
}

void GtkViewBackend::onMain(std::function<void()> fn) {
    if (onMainThread()) {
        fn();
        return;
    }
    // Always queued: invoking on the default context could run it on this thread.
    g_idle_add_full(G_PRIORITY_HIGH_IDLE, runMainJob, new MainJob{alive_, std::move(fn)}, deleteMainJob);
}

void GtkViewBackend::show(const std::shared_ptr<ViewWindow>& window, bool modal) {
    if (window->isClosed())
        return;
    GtkWindow* gtkWindow = viewOf(window)->gtkWindow();
    gtk_window_set_modal(gtkWindow, modal);
    gtk_window_present(gtkWindow);
}

void GtkViewBackend::windowCreated(ViewWindow& window) {
    schedule(window);
}

void GtkViewBackend::modalStarted(ViewWindow& window) {
    std::weak_ptr<ViewWindow> weak = window.weak_from_this();
    onMain([this, weak] {
        if (auto shown = weak.lock())
            show(shown, true);
    });
}

void GtkViewBackend::modalEnded(ViewWindow& window) {
    std::weak_ptr<ViewWindow> weak = window.weak_from_this();
    onMain([this, weak] {
        auto ended = weak.lock();
        auto found = ended ? views_.find(ended.get()) : views_.end();
        if (found == views_.end())
            return;
        if (ended->isClosed()) {
            views_.erase(found);
        } else {
            // Ended without closing (the browser's Done): hidden, ready to run again.
            gtk_window_set_modal(found->second->gtkWindow(), FALSE);
            gtk_widget_set_visible(GTK_WIDGET(found->second->gtkWindow()), FALSE);
        }
    });
}

void GtkViewBackend::changedOn(ViewWindow& window, const std::string&, const std::string&) {
    schedule(window);
}

bool GtkViewBackend::iteratesModal() const {
    return onMainThread();
}

void GtkViewBackend::modalIterate(ViewWindow&) {
    g_main_context_iteration(nullptr, TRUE);
}

void GtkViewBackend::wakeModal() {
    g_main_context_wakeup(nullptr);
}

} // namespace cirrovault

#include "GtkContractStubs.h"

#if !__has_include("platform/view/gtk/GtkViewBackend.h")
#include "platform/os/SystemLog.h"
#include "platform/view/ViewLayout.h"

namespace cirrovault {

void GtkViewBackend::modalStarted(ViewWindow& window) {
    HeadlessViewBackend::modalStarted(window);
    if (window.layout() == ViewLayout::CreateTaskStep1 || window.layout() == ViewLayout::FilePathBrowser)
        window.close();
}

void GtkViewBackend::modalTick(ViewWindow&) {
    if (!g_main_context_is_owner(nullptr))
        return;
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
}

bool saveWidgetPng(GtkWidget* widget, const std::string& pngPath) {
    int width = widget ? gtk_widget_get_width(widget) : 0;
    int height = widget ? gtk_widget_get_height(widget) : 0;
    GtkNative* native = widget ? gtk_widget_get_native(widget) : nullptr;
    GskRenderer* renderer = native ? gtk_native_get_renderer(native) : nullptr;
    if (width <= 0 || height <= 0 || !renderer) {
        SystemLog::write("Error: saveWidgetPng: the widget is not shown");
        return false;
    }
    GdkPaintable* paintable = gtk_widget_paintable_new(widget);
    GtkSnapshot* snapshot = gtk_snapshot_new();
    gdk_paintable_snapshot(paintable, snapshot, width, height);
    GskRenderNode* node = gtk_snapshot_free_to_node(snapshot);
    bool saved = false;
    if (node) {
        graphene_rect_t area = GRAPHENE_RECT_INIT(0, 0, static_cast<float>(width), static_cast<float>(height));
        GdkTexture* texture = gsk_renderer_render_texture(renderer, node, &area);
        saved = texture && gdk_texture_save_to_png(texture, pngPath.c_str());
        if (texture)
            g_object_unref(texture);
        gsk_render_node_unref(node);
    }
    g_object_unref(paintable);
    if (!saved)
        SystemLog::write("Error: saveWidgetPng: cannot write " + pngPath);
    return saved;
}

} // namespace cirrovault
#endif

#include "platform/view/gtk/GtkScreenshot.h"

#include "platform/os/SystemLog.h"

namespace cirrovault {

bool saveWidgetPng(GtkWidget* widget, const std::string& pngPath) {
    if (!widget || !gtk_widget_get_mapped(widget)) {
        SystemLog::write("Error: screenshot of a widget not shown: " + pngPath);
        return false;
    }
    int width = gtk_widget_get_width(widget);
    int height = gtk_widget_get_height(widget);
    GtkNative* native = gtk_widget_get_native(widget);
    GskRenderer* renderer = native ? gtk_native_get_renderer(native) : nullptr;
    if (width <= 0 || height <= 0 || !renderer) {
        SystemLog::write("Error: screenshot of a widget not laid out: " + pngPath);
        return false;
    }
    GdkPaintable* paintable = gtk_widget_paintable_new(widget);
    GtkSnapshot* snapshot = gtk_snapshot_new();
    gdk_paintable_snapshot(paintable, snapshot, width, height);
    GskRenderNode* node = gtk_snapshot_free_to_node(snapshot);
    g_object_unref(paintable);
    if (!node) {
        SystemLog::write("Error: screenshot drew nothing: " + pngPath);
        return false;
    }
    graphene_rect_t area = GRAPHENE_RECT_INIT(0, 0, static_cast<float>(width), static_cast<float>(height));
    GdkTexture* texture = gsk_renderer_render_texture(renderer, node, &area);
    gsk_render_node_unref(node);
    bool saved = texture && gdk_texture_save_to_png(texture, pngPath.c_str());
    if (texture)
        g_object_unref(texture);
    if (!saved)
        SystemLog::write("Error: cannot write screenshot " + pngPath);
    return saved;
}

} // namespace cirrovault

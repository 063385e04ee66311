#include "GtkDialogs.h"

#include "platform/framework/LoadString.h"
#include "platform/framework/NimboMessagebox.h"

namespace cirrovault::desktop {

std::atomic<bool> GtkDialogs::quitting{false};

namespace {

// One dialog's state while its nested loop runs.
struct Pending {
    bool done = false;
    int answer = 0;
};

std::string label(const char* key, const char* english) {
    return LoadString::GetValueByKey(key, english);
}

GtkWidget* dialogWindow(GtkWindow* parent, const std::string& title, Pending& pending, int closeAnswer) {
    GtkWidget* window = gtk_window_new();
    gtk_window_set_title(GTK_WINDOW(window), title.c_str());
    gtk_window_set_modal(GTK_WINDOW(window), TRUE);
    gtk_window_set_resizable(GTK_WINDOW(window), FALSE);
    if (parent)
        gtk_window_set_transient_for(GTK_WINDOW(window), parent);
    pending.answer = closeAnswer;
    g_object_set_data(G_OBJECT(window), "pending", &pending);
    g_signal_connect(window, "close-request", G_CALLBACK(+[](GtkWindow* w, gpointer) -> gboolean {
                         auto* p = static_cast<Pending*>(g_object_get_data(G_OBJECT(w), "pending"));
                         p->done = true;
                         return TRUE; // destroyed by the dialog's owner, once its fields are read
                     }),
                     nullptr);
    return window;
}

// A button that answers the dialog it sits in.
void addAnswer(GtkWidget* row, Pending& pending, const std::string& text, int answer) {
    GtkWidget* button = gtk_button_new_with_label(text.c_str());
    g_object_set_data(G_OBJECT(button), "pending", &pending);
    g_object_set_data(G_OBJECT(button), "answer", GINT_TO_POINTER(answer));
    g_signal_connect(button, "clicked", G_CALLBACK(+[](GtkButton* b, gpointer) {
                         auto* p = static_cast<Pending*>(g_object_get_data(G_OBJECT(b), "pending"));
                         p->answer = GPOINTER_TO_INT(g_object_get_data(G_OBJECT(b), "answer"));
                         p->done = true;
                     }),
                     nullptr);
    gtk_box_append(GTK_BOX(row), button);
}

GtkWidget* buttonRow() {
    GtkWidget* row = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 8);
    gtk_widget_set_halign(row, GTK_ALIGN_END);
    return row;
}

constexpr int kOk = 1;
constexpr int kCancel = 0;

// Cancel and OK at the foot of a dialog's column, and the dialog shown.
void finishOkCancel(GtkWidget* window, GtkWidget* box, Pending& pending) {
    GtkWidget* row = buttonRow();
    addAnswer(row, pending, label("Cancel", "Cancel"), kCancel);
    addAnswer(row, pending, label("IDS_OK", "OK"), kOk);
    gtk_box_append(GTK_BOX(box), row);
    gtk_window_set_child(GTK_WINDOW(window), box);
    gtk_window_present(GTK_WINDOW(window));
}

} // namespace

GtkWidget* GtkDialogs::column(int margin) {
    GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 8);
    gtk_widget_set_margin_top(box, margin);
    gtk_widget_set_margin_bottom(box, margin);
    gtk_widget_set_margin_start(box, margin);
    gtk_widget_set_margin_end(box, margin);
    return box;
}

void GtkDialogs::runUntil(const bool& done) {
    while (!done && !quitting)
        g_main_context_iteration(nullptr, TRUE);
}

int GtkDialogs::neutralAnswer(int style) {
    switch (style) {
    case MessageboxStyle::YesNo:
        return MessageboxAnswer::No;
    case MessageboxStyle::RetryCancel:
        return MessageboxAnswer::Cancel;
    case MessageboxStyle::TryAgainOrGiveUp:
        return MessageboxAnswer::GiveUp;
    default:
        return MessageboxAnswer::Ok;
    }
}

int GtkDialogs::message(GtkWindow* parent, const std::string& title, const std::string& text, int style) {
    Pending pending;
    int neutral = neutralAnswer(style);
    GtkWidget* window = dialogWindow(parent, title, pending, neutral);
    GtkWidget* box = GtkDialogs::column();
    GtkWidget* body = gtk_label_new(text.c_str());
    gtk_label_set_wrap(GTK_LABEL(body), TRUE);
    gtk_label_set_max_width_chars(GTK_LABEL(body), 60);
    gtk_box_append(GTK_BOX(box), body);
    GtkWidget* row = buttonRow();
    switch (style) {
    case MessageboxStyle::YesNo:
        addAnswer(row, pending, label("IDS_NO", "No"), MessageboxAnswer::No);
        addAnswer(row, pending, label("IDS_YES", "Yes"), MessageboxAnswer::Yes);
        break;
    case MessageboxStyle::RetryCancel:
        addAnswer(row, pending, label("Cancel", "Cancel"), MessageboxAnswer::Cancel);
        addAnswer(row, pending, label("IDS_RETRY", "Retry"), MessageboxAnswer::Retry);
        break;
    case MessageboxStyle::TryAgainOrGiveUp:
        addAnswer(row, pending, label("IDS_GIVEUP", "Give up"), MessageboxAnswer::GiveUp);
        addAnswer(row, pending, label("IDS_TRYAGAIN", "Try again"), MessageboxAnswer::TryAgain);
        break;
    default:
        addAnswer(row, pending, label("IDS_OK", "OK"), MessageboxAnswer::Ok);
    }
    gtk_box_append(GTK_BOX(box), row);
    gtk_window_set_child(GTK_WINDOW(window), box);
    gtk_window_present(GTK_WINDOW(window));
    runUntil(pending.done);
    gtk_window_destroy(GTK_WINDOW(window));
    return pending.done ? pending.answer : neutral;
}

std::optional<std::vector<std::string>> GtkDialogs::askFields(GtkWindow* parent, const std::string& title,
                                                               const std::vector<std::string>& labels,
                                                               const std::vector<std::string>& values) {
    Pending pending;
    GtkWidget* window = dialogWindow(parent, title, pending, kCancel);
    GtkWidget* box = GtkDialogs::column();
    std::vector<GtkWidget*> entries;
    for (size_t i = 0; i < labels.size(); ++i) {
        GtkWidget* caption = gtk_label_new(labels[i].c_str());
        gtk_label_set_xalign(GTK_LABEL(caption), 0);
        gtk_box_append(GTK_BOX(box), caption);
        GtkWidget* entry = gtk_entry_new();
        gtk_editable_set_text(GTK_EDITABLE(entry), i < values.size() ? values[i].c_str() : "");
        gtk_widget_set_size_request(entry, 320, -1);
        gtk_box_append(GTK_BOX(box), entry);
        entries.push_back(entry);
    }
    finishOkCancel(window, box, pending);
    runUntil(pending.done);
    std::optional<std::vector<std::string>> answer;
    if (pending.done && pending.answer == kOk) {
        answer.emplace();
        for (GtkWidget* entry : entries)
            answer->push_back(gtk_editable_get_text(GTK_EDITABLE(entry)));
    }
    gtk_window_destroy(GTK_WINDOW(window));
    return answer;
}

std::optional<std::string> GtkDialogs::askSecret(GtkWindow* parent, const std::string& title,
                                                 const std::string& question, bool confirm) {
    for (;;) {
        Pending pending;
        GtkWidget* window = dialogWindow(parent, title, pending, kCancel);
        GtkWidget* box = GtkDialogs::column();
        gtk_box_append(GTK_BOX(box), gtk_label_new(question.c_str()));
        GtkWidget* first = gtk_password_entry_new();
        gtk_password_entry_set_show_peek_icon(GTK_PASSWORD_ENTRY(first), TRUE);
        gtk_box_append(GTK_BOX(box), first);
        GtkWidget* again = nullptr;
        if (confirm) {
            gtk_box_append(GTK_BOX(box), gtk_label_new(label("DesktopSecretAgain", "Type it again:").c_str()));
            again = gtk_password_entry_new();
            gtk_box_append(GTK_BOX(box), again);
        }
        finishOkCancel(window, box, pending);
        runUntil(pending.done);
        std::string typed = gtk_editable_get_text(GTK_EDITABLE(first));
        std::string repeated = again ? gtk_editable_get_text(GTK_EDITABLE(again)) : typed;
        gtk_window_destroy(GTK_WINDOW(window));
        if (!pending.done || pending.answer != kOk)
            return std::nullopt;
        if (!typed.empty() && typed == repeated)
            return typed;
        message(parent, title,
                typed.empty() ? label("DesktopSecretEmpty", "Nothing was typed.")
                              : label("DesktopSecretMismatch", "The two entries differ; type them again."),
                MessageboxStyle::Notice);
    }
}

std::string GtkDialogs::chooseFolder(GtkWindow* parent, const std::string& title) {
    Pending pending;
    // The chooser's own dialog: the file chooser widget is what the desktop expects.
    G_GNUC_BEGIN_IGNORE_DEPRECATIONS
    GtkWidget* chooser = gtk_file_chooser_dialog_new(title.c_str(), parent, GTK_FILE_CHOOSER_ACTION_SELECT_FOLDER,
                                                     label("Cancel", "Cancel").c_str(), GTK_RESPONSE_CANCEL,
                                                     label("DesktopChoose", "Choose").c_str(), GTK_RESPONSE_ACCEPT,
                                                     nullptr);
    gtk_window_set_modal(GTK_WINDOW(chooser), TRUE);
    g_object_set_data(G_OBJECT(chooser), "pending", &pending);
    g_signal_connect(chooser, "response", G_CALLBACK(+[](GtkDialog* d, int response, gpointer) {
                         auto* p = static_cast<Pending*>(g_object_get_data(G_OBJECT(d), "pending"));
                         p->answer = response;
                         p->done = true;
                     }),
                     nullptr);
    gtk_window_present(GTK_WINDOW(chooser));
    runUntil(pending.done);
    std::string folder;
    if (pending.done && pending.answer == GTK_RESPONSE_ACCEPT) {
        if (GFile* file = gtk_file_chooser_get_file(GTK_FILE_CHOOSER(chooser))) {
            if (char* path = g_file_get_path(file)) {
                folder = path;
                g_free(path);
            }
            g_object_unref(file);
        }
    }
    gtk_window_destroy(GTK_WINDOW(chooser));
    G_GNUC_END_IGNORE_DEPRECATIONS
    return folder;
}

} // namespace cirrovault::desktop

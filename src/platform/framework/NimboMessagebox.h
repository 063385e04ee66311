#pragma once

#include <memory>
#include <string>

namespace cirrovault {

// Message-box styles and the answers callers test.
namespace MessageboxStyle {
inline constexpr int Notice = 0;
inline constexpr int TryAgainOrGiveUp = 1; // answer 0 = try again
inline constexpr int YesNo = 2;            // answer 3 = yes
inline constexpr int RetryCancel = 3;      // answer 5 = retry
} // namespace MessageboxStyle

namespace MessageboxAnswer {
inline constexpr int Ok = 0;
inline constexpr int TryAgain = 0;
inline constexpr int GiveUp = 1;
inline constexpr int Yes = 3;
inline constexpr int No = 4;
inline constexpr int Retry = 5;
inline constexpr int Cancel = 6;
inline constexpr int OrderSpace = 7; // storage-order dialog: the user orders more space
} // namespace MessageboxAnswer

// The framework's message box. Whoever hosts the program (terminal, daemon, tests)
// installs a Presenter that draws the box and answers; callers only build the box and
// run it, so a new front end needs no change in them.
class NimboMessagebox {
public:
    class Presenter {
    public:
        virtual ~Presenter() = default;
        // A message box; answers per MessageboxAnswer for the style.
        virtual int showMessage(const std::string& title, const std::string& informativeText,
                                int messageboxStyle) = 0;
        // The storage-order dialog: a message with a check box (checkBox in: its initial
        // state, out: as the user left it). Answers OrderSpace when the user orders space.
        virtual int showStorageOrder(const std::string& title, const std::string& message,
                                     bool& checkBox, int dialogStyle) = 0;
        // A choose-folder panel (folders only); the chosen path, or "" when cancelled.
        virtual std::string chooseFolder(const std::string& title) = 0;
    };

    // Installs the process-wide presenter; nullptr restores the built-in headless one
    // with its default answers.
    static void setPresenter(std::shared_ptr<Presenter> presenter);
    static std::shared_ptr<Presenter> presenter();

    NimboMessagebox() = default;
    NimboMessagebox& InitWithMessage(const std::string& title, const std::string& informativeText,
                                     int messageboxStyle);
    // Shows the box and answers; a presenter that fails answers the headless default.
    int runModal() const;

    // Dialogs of the framework beyond the plain box, through the same presenter.
    static int runStorageOrderDialog(const std::string& title, const std::string& message,
                                     bool& checkBox, int dialogStyle);
    static std::string runFolderPanel(const std::string& title);

    const std::string& title() const { return title_; }
    const std::string& informativeText() const { return informativeText_; }
    int messageboxStyle() const { return messageboxStyle_; }

private:
    std::string title_;
    std::string informativeText_;
    int messageboxStyle_ = MessageboxStyle::Notice;
};

} // namespace cirrovault

#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace cirrovault {

// One window made from a named layout (see ViewLayout.h): texts and values by outlet,
// a tab page, a spinner, and actions run when a button is pressed. Workers write to it
// from their own threads while the main thread runs it modally, so every member is
// safe from any thread. Actions run on the thread that pressed, without locks held.
// Back ends that draw later on another thread hold it weakly (weak_from_this).
class ViewWindow : public std::enable_shared_from_this<ViewWindow> {
public:
    // The back end that draws the window hears of every change, on the changing thread.
    class Observer {
    public:
        virtual ~Observer() = default;
        virtual void windowChanged(ViewWindow& window, const std::string& outlet,
                                   const std::string& text) = 0;
        virtual void buttonPressed(ViewWindow& window, const std::string& button) = 0;
    };

    explicit ViewWindow(std::string layout, Observer* observer = nullptr);
    ViewWindow(const ViewWindow&) = delete;
    ViewWindow& operator=(const ViewWindow&) = delete;

    const std::string& layout() const { return layout_; }

    void setText(const std::string& outlet, const std::string& text);
    std::string text(const std::string& outlet) const; // "" when never set
    void setValue(const std::string& outlet, double value);
    double value(const std::string& outlet) const; // 0 when never set
    // A list shown by the outlet (the rows of a browser, the titles of a popup).
    void setItems(const std::string& outlet, const std::vector<std::string>& items);
    std::vector<std::string> items(const std::string& outlet) const; // empty when never set
    // Whether the control behind the outlet takes input; true until set otherwise.
    void setEnabled(const std::string& outlet, bool enabled);
    bool isEnabled(const std::string& outlet) const;
    void selectTab(int index);
    int selectedTab() const;
    void setSpinning(bool spinning);
    bool isSpinning() const;

    // The action run when the button is pressed (or the event raised); replaces any
    // earlier one.
    void setAction(const std::string& button, std::function<void()> action);
    // As if the user pressed the button: counts the press, then runs its action.
    void press(const std::string& button);
    int pressCount(const std::string& button) const;
    // Raises a window event (ViewEvent): runs its action without counting a press.
    void raise(const std::string& event);

    // Closes the window (once): raises WillClose, and its modal session, if any, ends.
    void close();
    bool isClosed() const;

    // A change counter, so a back end can tell whether to redraw.
    unsigned long revision() const;

private:
    void changed(const std::string& outlet, const std::string& text);
    std::function<void()> actionFor(const std::string& name) const;

    const std::string layout_;
    Observer* const observer_;
    mutable std::mutex mutex_;
    std::map<std::string, std::string> texts_;                  // guarded by mutex_
    std::map<std::string, double> values_;                      // guarded by mutex_
    std::map<std::string, std::vector<std::string>> items_;     // guarded by mutex_
    std::set<std::string> disabled_;                            // guarded by mutex_
    std::map<std::string, int> presses_;                        // guarded by mutex_
    std::map<std::string, std::function<void()>> actions_;      // guarded by mutex_
    int tab_ = 0;                                               // guarded by mutex_
    bool spinning_ = false;                                     // guarded by mutex_
    bool closed_ = false;                                       // guarded by mutex_
    unsigned long revision_ = 0;                                // guarded by mutex_
};

} // namespace cirrovault

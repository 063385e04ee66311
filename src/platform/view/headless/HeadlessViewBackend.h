#pragma once

#include <cstddef>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/view/ViewBackend.h"

namespace cirrovault {

// No display: the daemon and the tests. Nothing is drawn; every text set and every
// press is recorded, and scripted presses stand in for the user. A scripted press
// happens the moment its condition becomes true, on the thread that made it true, so a
// worker that polls after setting a text sees the press at its next poll.
class HeadlessViewBackend : public ViewBackend {
public:
    struct Record {
        std::string layout;
        std::string outlet; // or the button, for a press
        std::string text;   // "" for a press
        bool press = false;
    };

    // Presses the button as soon as a window of the layout runs modally.
    void pressOnShow(const std::string& layout, const std::string& button);
    // Presses the button once the outlet of a window of the layout has been set
    // `count` times (counted per window).
    void pressAfterTexts(const std::string& layout, const std::string& outlet, size_t count,
                         const std::string& button);
    // Presses the button once a text containing `contains` is set on the outlet.
    void pressWhenText(const std::string& layout, const std::string& outlet,
                       const std::string& contains, const std::string& button);

    std::vector<Record> records() const;
    // The texts set on the outlet of windows of the layout, in order.
    std::vector<std::string> textsOf(const std::string& layout, const std::string& outlet) const;
    size_t pressesOf(const std::string& layout, const std::string& button) const;

protected:
    void windowCreated(ViewWindow& window) override;
    void modalStarted(ViewWindow& window) override;
    void changedOn(ViewWindow& window, const std::string& outlet, const std::string& text) override;
    void pressedOn(ViewWindow& window, const std::string& button) override;

private:
    enum class When { Shown, Count, Contains };
    struct Rule {
        When when = When::Shown;
        std::string layout;
        std::string outlet;
        size_t count = 0;
        std::string contains;
        std::string button;
        bool fired = false;
    };

    mutable std::mutex mutex_;
    std::vector<Rule> rules_;                                   // guarded by mutex_
    std::vector<Record> records_;                               // guarded by mutex_
    std::map<std::pair<const ViewWindow*, std::string>, size_t> counts_; // guarded by mutex_
};

} // namespace cirrovault

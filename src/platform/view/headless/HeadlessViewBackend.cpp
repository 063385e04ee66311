#include "platform/view/headless/HeadlessViewBackend.h"

#include <iterator>

namespace cirrovault {

void HeadlessViewBackend::pressOnShow(const std::string& layout, const std::string& button) {
    std::lock_guard lock(mutex_);
    rules_.push_back(Rule{When::Shown, layout, {}, 0, {}, button, false});
}

void HeadlessViewBackend::pressAfterTexts(const std::string& layout, const std::string& outlet,
                                          size_t count, const std::string& button) {
    std::lock_guard lock(mutex_);
    rules_.push_back(Rule{When::Count, layout, outlet, count, {}, button, false});
}

void HeadlessViewBackend::pressWhenText(const std::string& layout, const std::string& outlet,
                                        const std::string& contains, const std::string& button) {
    std::lock_guard lock(mutex_);
    rules_.push_back(Rule{When::Contains, layout, outlet, 0, contains, button, false});
}

void HeadlessViewBackend::windowCreated(ViewWindow& window) {
    // A new window may reuse a freed one's address: its counts start afresh.
    std::lock_guard lock(mutex_);
    for (auto it = counts_.begin(); it != counts_.end();)
        it = it->first.first == &window ? counts_.erase(it) : std::next(it);
}

void HeadlessViewBackend::modalStarted(ViewWindow& window) {
    std::vector<std::string> presses;
    {
        std::lock_guard lock(mutex_);
        for (Rule& rule : rules_) {
            if (!rule.fired && rule.when == When::Shown && rule.layout == window.layout()) {
                rule.fired = true;
                presses.push_back(rule.button);
            }
        }
    }
    for (const std::string& button : presses)
        window.press(button);
}

void HeadlessViewBackend::changedOn(ViewWindow& window, const std::string& outlet,
                                    const std::string& text) {
    std::vector<std::string> presses;
    {
        std::lock_guard lock(mutex_);
        records_.push_back(Record{window.layout(), outlet, text, false});
        size_t count = ++counts_[{&window, outlet}];
        for (Rule& rule : rules_) {
            if (rule.fired || rule.layout != window.layout() || rule.outlet != outlet)
                continue;
            bool due = (rule.when == When::Count && count >= rule.count) ||
                       (rule.when == When::Contains && text.find(rule.contains) != std::string::npos);
            if (due) {
                rule.fired = true;
                presses.push_back(rule.button);
            }
        }
    }
    // Pressed outside the lock: the action may set texts again.
    for (const std::string& button : presses)
        window.press(button);
}

void HeadlessViewBackend::pressedOn(ViewWindow& window, const std::string& button) {
    std::lock_guard lock(mutex_);
    records_.push_back(Record{window.layout(), button, {}, true});
}

std::vector<HeadlessViewBackend::Record> HeadlessViewBackend::records() const {
    std::lock_guard lock(mutex_);
    return records_;
}

std::vector<std::string> HeadlessViewBackend::textsOf(const std::string& layout,
                                                      const std::string& outlet) const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> texts;
    for (const Record& record : records_)
        if (!record.press && record.layout == layout && record.outlet == outlet)
            texts.push_back(record.text);
    return texts;
}

size_t HeadlessViewBackend::pressesOf(const std::string& layout, const std::string& button) const {
    std::lock_guard lock(mutex_);
    size_t n = 0;
    for (const Record& record : records_)
        if (record.press && record.layout == layout && record.outlet == button)
            ++n;
    return n;
}

} // namespace cirrovault

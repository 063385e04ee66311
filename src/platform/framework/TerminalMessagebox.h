#pragma once

#include <memory>
#include <string>

#include "platform/framework/HeadlessMessagebox.h"
#include "platform/framework/NimboMessagebox.h"

namespace cirrovault {

// Message boxes as prompts on the terminal. Without a terminal (or at the end of
// input) the box is printed and answered with the headless defaults, which the host
// may configure, so a question never waits for a person who is not there.
class TerminalMessagebox : public NimboMessagebox::Presenter {
public:
    explicit TerminalMessagebox(int inputFd = 0, int outputFd = 2);

    int showMessage(const std::string& title, const std::string& informativeText,
                    int messageboxStyle) override;
    int showStorageOrder(const std::string& title, const std::string& message, bool& checkBox,
                         int dialogStyle) override;
    std::string chooseFolder(const std::string& title) override;

    // The answers given when nobody can be asked.
    HeadlessMessagebox& defaults() { return *fallback_; }

private:
    bool interactive() const;

    int inputFd_;
    int outputFd_;
    std::shared_ptr<HeadlessMessagebox> fallback_ = std::make_shared<HeadlessMessagebox>();
};

} // namespace cirrovault

#pragma once

#include <gtk/gtk.h>

#include <optional>
#include <string>

#include "DesktopSession.h"
#include "TaskInput.h"
#include "ui/CreateViewXibControllerDelegate.h"

namespace cirrovault::desktop {

// The new-task wizard: the folder browser, the first step with its checks of Next (both
// the engine's controllers, drawn by the view back end), then the schedule page (no
// schedule or the one chosen, the dates of a date range, encryption), then the manager
// registers the task and its first run shows its progress window. Main thread only.
class NewTaskWizard : public CreateViewXibControllerDelegate {
public:
    NewTaskWizard(DesktopSession& session, GtkWindow* parent);
    ~NewTaskWizard() override;

    // The name of the task made, or "" when the user gave up or it was refused (said).
    std::string run();

    // The schedule page's answer for the step's type (1 daily, 2 weekly, 3 dates): the
    // input for the manager, or nothing when cancelled. Exposed for the tests.
    std::optional<cli::TaskInput> schedulePage(int32_t stepType);

    bool GoToTaskStep2Delegate(CreateViewXibController& controller) override;

private:
    enum class Step { Browser, Step1, Done, Cancelled };

    DesktopSession& session_;
    GtkWindow* parent_;
    Step step_ = Step::Browser;
};

} // namespace cirrovault::desktop

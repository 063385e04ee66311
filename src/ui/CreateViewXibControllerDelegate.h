#pragma once

namespace cirrovault {

class CreateViewXibController;

// The host's side of the new-task wizard: it moves between the steps. The direction is
// the controller's nTaskStep1ButtonType (1 forward after Next, 0 back).
class CreateViewXibControllerDelegate {
public:
    virtual ~CreateViewXibControllerDelegate() = default;
    // False when the host could not change the step.
    virtual bool GoToTaskStep2Delegate(CreateViewXibController& controller) = 0;
};

} // namespace cirrovault

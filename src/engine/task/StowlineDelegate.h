#pragma once

#include <memory>

#include "engine/task/StowlineDelegateType.h"

namespace cirrovault {

class CBackupTask;

// Receiver of a task's events; the task manager is the delegate of every task it runs.
class StowlineDelegate {
public:
    virtual ~StowlineDelegate() = default;
    // Answers whether the event was handled; a task only logs a false answer.
    virtual bool StowlineDelegateFun(const std::shared_ptr<CBackupTask>& task,
                                     StowlineDelegateType delegateType) = 0;
};

} // namespace cirrovault

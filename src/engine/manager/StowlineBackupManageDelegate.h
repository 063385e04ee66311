#pragma once

#include <cstdint>
#include <memory>

namespace cirrovault {

class CBackupManage;
class CBackupTask;

// The host application's side of the task manager: one method receives every event the
// host must see (a task began or ended, progress changed, a deletion started, a task
// was queued). It is called on the thread that raised the event, without the manager's
// lock; the host moves user-interface work to its own thread.
class StowlineBackupManageDelegate {
public:
    virtual ~StowlineBackupManageDelegate() = default;
    // taskInfo is null for events without a task (type 6). True means handled; a false
    // answer is only logged.
    virtual bool StowlineBackupManageDelegateFun(CBackupManage* manager,
                                                 const std::shared_ptr<CBackupTask>& taskInfo,
                                                 int32_t delegateType) = 0;
};

} // namespace cirrovault

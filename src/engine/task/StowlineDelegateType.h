#pragma once

#include <cstdint>

namespace cirrovault {

// Events a task reports to its delegate. Types 0 to 5 come from a running task;
// 6 and 7 are raised by the task manager itself. The values travel to the host as
// plain integers, so they must never be renumbered.
enum StowlineDelegateType : int32_t {
    finishedTaskDelegate = 0,         // end of a run, after 5 and before 2
    beginUploadTaskDelegate = 1,      // a run has begun
    endUploadTaskDelegate = 2,        // last event of a run
    checkAccountSpaceDelegate = 3,    // the scan is over, the space check begins
    refreshProgressBarDelegate = 4,   // progress figures changed
    closeProgressBarViewDelegate = 5, // the run is closed
    deleteTaskDelegate = 6,           // the manager started a deletion (no task)
    scheduleTaskDelegate = 7,         // the scheduler queued a task
};

} // namespace cirrovault

#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <sys/types.h>

#include "RunLock.h"
#include "engine/manager/CBackupManage.h"

namespace cirrovault::cli {

// The daemon's side of sharing an account with the commands a user types: it takes the
// account's run lock only around each run, and between passes, when nobody else holds
// the lock, it reads the task list again if its document changed and the options if
// their file changed, so that the next pass works with what the user set.
class DaemonGate : public SchedulerHooks {
public:
    using Say = std::function<void(const std::string&)>;

    // Made after the logon: the options file as it is now counts as read.
    DaemonGate(CBackupManage& manager, std::string accountFolder, Say say);

    bool mayStartRun(const std::string& taskName) override;
    void runEnded() override;
    void betweenPasses() override;

private:
    struct OptionsStamp {
        uint64_t inode = 0, size = 0;
        double modified = 0;
        bool operator==(const OptionsStamp&) const = default;
    };
    static std::optional<std::string> taskListVersion();
    static OptionsStamp optionsStamp();

    CBackupManage& manager_;
    const std::string folder_;
    const Say say_;
    std::mutex mutex_;
    std::unique_ptr<RunLock> runLock_; // guarded by mutex_; held while a task runs
    pid_t lastHolder_ = 0;             // guarded by mutex_; said once per other holder
    // Scheduler thread only. No version at first: the list the logon loaded was read
    // without the lock, so the first pass reads it again under it.
    std::optional<std::string> seenVersion_;
    OptionsStamp seenOptions_;
};

} // namespace cirrovault::cli

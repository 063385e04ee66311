// Two processes editing one task at once: the store's locking must keep every path.
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <string>

#include <gtest/gtest.h>

#include "common/TempHome.h"
#include "platform/framework/Functions.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/ResultCodes.h"
#include "service/CManageTaskList.h"

using namespace cirrovault;

namespace {

int64_t connect(const std::string& url) {
    auto& api = TransferApiUtil::shareTransferApiUtil();
    int64_t code = api.OpenService(url);
    return code != ResultCode::Success ? code : api.Logon("bob", "pass phrase");
}

TEST(TaskListRoundTrip, TwoProcessesEditingOneAccountLoseNoPath) {
    test::TempHome home;
    const std::string url = "file://" + home.file("service");
    ASSERT_EQ(connect(url), 0);
    TaskListEntry task;
    task.name = "Shared";
    task.serverPath = "\\Backup\\Shared";
    CManageTaskList client;
    ASSERT_EQ(client.addOrEditBackupTask(task, "Add", "", "", ""), 0);
    // Each process opens the store itself: no database connection crosses the fork.
    TransferApiUtil::releaseTransferApiUtil();

    auto addPaths = [&](const std::string& prefix) {
        if (connect(url) != 0)
            return false;
        bool allDone = true;
        for (int round = 0; round < 5; ++round) {
            TaskListEntry edit = task;
            for (int i = 0; i < 8; ++i)
                edit.addFileArray.push_back(prefix + std::to_string(round * 8 + i));
            CManageTaskList writer;
            allDone = writer.addOrEditBackupTask(edit, "Edit", "", "Shared", "") == 0 && allDone;
        }
        TransferApiUtil::releaseTransferApiUtil();
        return allDone;
    };

    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0)
        _exit(addPaths("/child/") ? 0 : 1);
    bool parentDone = addPaths("/parent/");
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(parentDone && WIFEXITED(status) && WEXITSTATUS(status) == 0) << parentDone << " " << status;

    ASSERT_EQ(connect(url), 0);
    auto paths = Functions::GetValueArrayByKey("RETURN_Path", client.getBackupTasks("Shared", "true"));
    EXPECT_EQ(paths.size(), 80u);
    EXPECT_EQ(std::set<std::string>(paths.begin(), paths.end()).size(), 80u);
    TransferApiUtil::releaseTransferApiUtil();
}

} // namespace

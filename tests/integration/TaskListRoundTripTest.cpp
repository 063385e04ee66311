#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/TempHome.h"
#include "platform/framework/Functions.h"
#include "platform/framework/NimboSetting.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/TransferApiUtil.h"
#include "service/CManageTaskList.h"

using namespace cirrovault;

namespace {

constexpr const char* kReplyDateFormat = "MM/dd/yyyy HH:mm:ss";

TransferApiUtil& api() {
    return TransferApiUtil::shareTransferApiUtil();
}

int64_t connect(const std::string& url) {
    int64_t code = api().OpenService(url);
    return code != ResultCode::Success ? code : api().Logon("bob", "pass phrase");
}

TaskListEntry makeTask(const std::string& name, Date now) {
    TaskListEntry task;
    task.taskID = 1234;
    task.pcID = 987654321;
    task.name = name;
    task.description = "Photos & scans";
    task.mPCName = "desk";
    task.taskType = 0x12;
    const double t = std::floor(now.timeIntervalSince1970()); // the reply keeps whole seconds
    task.mBackupDate = Date(t - 86400);
    task.serverPath = "\\Backup\\" + name;
    task.filterExt = {"tmp", "part"};
    task.filtedPath = {"/home/bob/.cache"};
    task.uiMaxVersion = 5000000000ull;
    task.mDating = Date(t + 3600);
    task.mBeginDate = Date(t - 30 * 86400);
    task.mEndDate = Date(t + 365 * 86400);
    task.mResumeDate = Date(t + 7200);
    task.bResume = true;
    return task;
}

std::string first(const std::string& key, const std::string& reply) {
    auto values = Functions::GetValueArrayByKey(key, reply);
    return values.size() == 1 ? values[0] : "<" + std::to_string(values.size()) + " values>";
}

class TaskListRoundTrip : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(connect(url), 0); }
    void TearDown() override { TransferApiUtil::releaseTransferApiUtil(); }

    test::TempHome home;
    std::string url = "file://" + home.file("service");
};

} // namespace

TEST_F(TaskListRoundTrip, AddRenameListNamesDelete) {
    TaskListEntry task = makeTask("Pictures", Date::now());
    task.localDirList = {home.path(), home.file("missing.jpg")};
    CManageTaskList client;
    ASSERT_EQ(client.addOrEditBackupTask(task, "Add", "", "", ""), 0);

    // Every field the manager reads back comes back as it was sent.
    std::string reply = client.getBackupTasks("Pictures", "true");
    ASSERT_EQ(client.iResult, 0);
    std::string fields;
    for (const char* key : {"RETURN_TaskID", "RETURN_Descr", "RETURN_PcName", "RETURN_Type", "RETURN_ServerPath",
                            "RETURN_FilterExts", "RETURN_FilterPaths", "ETURN_MaxVersion", "RETURN_IsResume",
                            "RETURN_PcID"})
        fields += first(key, reply) + ";";
    EXPECT_EQ(fields, "1234;Photos & scans;desk;18;\\Backup\\Pictures;tmp|part;/home/bob/.cache;5000000000;1;987654321;");
    std::vector<Date> dates;
    for (const char* key : {"RETURN_BackupDate", "RETURN_NextDate", "RETURN_BeginDate", "RETURN_EndDate", "RETURN_ResumeDate"})
        dates.push_back(Functions::dayTransFromedString(first(key, reply), kReplyDateFormat).value_or(Date()));
    EXPECT_EQ(dates, (std::vector<Date>{task.mBackupDate, task.mDating, task.mBeginDate, task.mEndDate, task.mResumeDate}));
    EXPECT_EQ(Functions::GetValueArrayByKey("RETURN_Path", reply), task.localDirList);
    EXPECT_EQ(Functions::GetValueArrayByKey("RETURN_IsFolder", reply),
              (std::vector<std::string>{"1", "0"}));

    // Rename with a path change: the record moves, its paths stay with it.
    ASSERT_EQ(api().AddFolder("\\Backup", "", "", false), 0);
    ASSERT_EQ(api().AddFolder("\\Backup\\Pictures", "", "", false), 0);
    task.name = "Images";
    task.deleteFileArray = {home.file("missing.jpg")};
    task.addFileArray = {"/srv/images"};
    ASSERT_EQ(client.addOrEditBackupTask(task, "Edit", "", "Pictures", ""), 0);
    EXPECT_EQ(task.serverPath, "\\Backup\\Images");
    ASSERT_EQ(client.getTaskNames("true"), 0);
    EXPECT_EQ(client.taskNamesArray, (std::vector<std::string>{"Images"}));
    reply = client.getBackupTasks("Images", "true");
    EXPECT_EQ(first("RETURN_ServerPath", reply), "\\Backup\\Images");
    EXPECT_EQ(Functions::GetValueArrayByKey("RETURN_Path", reply),
              (std::vector<std::string>{home.path(), "/srv/images"}));

    ASSERT_EQ(client.deleteTasks("Images|Gone"), 0);
    ASSERT_EQ(client.getTaskNames("true"), 0);
    EXPECT_EQ(client.taskNamesArray, (std::vector<std::string>{""}));
    EXPECT_EQ(client.getBackupTasks("", "true"), "");
}

TEST_F(TaskListRoundTrip, ManyPathsInBatchesAllComeBackInOrder) {
    ASSERT_TRUE(NimboSetting::SetSettingValueForKey("UploadLocalPathCount", "100"));
    TaskListEntry task = makeTask("Sources", Date::now());
    for (int i = 0; i < 250; ++i)
        task.localDirList.push_back("/data/set " + std::to_string(i));
    CManageTaskList client;
    int requests = 0;
    client.setRequestObserver([&](const std::string&) { ++requests; });
    ASSERT_EQ(client.addOrEditBackupTask(task, "Add", "", "", ""), 0);
    EXPECT_EQ(requests, 3);
    std::string reply = client.getBackupTasks("Sources", "true");
    EXPECT_EQ(Functions::GetValueArrayByKey("RETURN_Path", reply), task.localDirList);
}

// Two processes add paths to one task of one account at the same time.
TEST_F(TaskListRoundTrip, TwoProcessesEditingOneAccountLoseNoPath) {
    TaskListEntry task = makeTask("Shared", Date::now());
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
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_TRUE(parentDone);

    ASSERT_EQ(connect(url), 0);
    std::string reply = client.getBackupTasks("Shared", "true");
    auto paths = Functions::GetValueArrayByKey("RETURN_Path", reply);
    std::set<std::string> unique(paths.begin(), paths.end());
    EXPECT_EQ(paths.size(), 80u);
    EXPECT_EQ(unique.size(), 80u);
}

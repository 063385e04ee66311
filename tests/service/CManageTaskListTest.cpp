#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/LocalDate.h"
#include "common/TempHome.h"
#include "platform/framework/Functions.h"
#include "platform/framework/NimboSetting.h"
#include "platform/os/ResultCodes.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/FileSystem.h"
#include "platform/store/StoreBackend.h"
#include "service/CManageTaskList.h"

using namespace cirrovault;

namespace {

using test::localDate;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using Strings = std::vector<std::string>;

TaskListEntry makeTask(const std::string& name) {
    TaskListEntry task;
    task.taskID = -5;
    task.pcID = UINT64_MAX;
    task.name = name;
    task.description = "Work files";
    task.mPCName = "box";
    task.taskType = 2;
    task.mBackupDate = localDate(2024, 3, 5, 7, 8, 9);
    task.serverPath = "\\Backup\\" + name;
    task.uiMaxVersion = 10;
    task.mDating = localDate(2024, 3, 6, 0, 0, 0);
    task.mBeginDate = localDate(2024, 2, 5, 7, 8, 9);
    task.mEndDate = localDate(2099, 1, 1, 0, 0, 0);
    task.mResumeDate = localDate(1971, 1, 1, 0, 0, 0);
    task.uiRemoteSize = 42;
    return task;
}

// Logged on to a local store; every request text the client sends is kept in `sent`.
class CManageTaskListTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(api().OpenService("file://" + home.file("store")), 0);
        ASSERT_EQ(api().Logon("alice", "secret"), 0);
        client.setRequestObserver([this](const std::string& text) { sent.push_back(text); });
    }
    void TearDown() override { TransferApiUtil::releaseTransferApiUtil(); }

    static TransferApiUtil& api() { return TransferApiUtil::shareTransferApiUtil(); }

    std::vector<std::string> storedPaths(const std::string& name) {
        CManageTaskList reader;
        std::string reply = reader.getBackupTasks(name, "true");
        EXPECT_EQ(reader.iResult, 0);
        return Functions::GetValueArrayByKey("RETURN_Path", reply);
    }

    Strings onService(const Strings& paths) {
        Strings found;
        for (const auto& path : paths)
            if (StoreItem item; api().backend()->stat(path, item) == ResultCode::Success)
                found.push_back(path);
        return found;
    }

    test::TempHome home;
    CManageTaskList client;
    std::vector<std::string> sent;
};

} // namespace

TEST_F(CManageTaskListTest, NewTaskSendsOnePathPerRequestNamesListDeletesAndARenameMovesBothFolders) {
    ASSERT_EQ(client.getTaskNames("true"), 0);
    EXPECT_EQ(client.nType, 3);
    EXPECT_EQ(client.strTaskNames + "|" + client.getBackupTasks("", "false"), "|");
    EXPECT_EQ(client.taskNamesArray, (Strings{""}));
    EXPECT_EQ(client.iResult, 0);

    std::string folderA = home.file("A b"), folderB = home.file("B"), file = home.file("c.txt");
    ASSERT_TRUE(FileSystem::createDirectories(folderA) && FileSystem::createDirectories(folderB));
    ASSERT_TRUE(FileSystem::writeFileAtomically(file, "x"));
    TaskListEntry task = makeTask("My Docs");
    task.localDirList = {folderA, file, folderB};

    ASSERT_EQ(client.addOrEditBackupTask(task, "Add", "", "", ""), 0);
    EXPECT_EQ(client.nType, 0);
    const std::string header =
        "TaskID=-5&ComputerID=18446744073709551615&TaskName=My%20Docs&Descr=Work%20files&"
        "PcName=box&Type=2&BackupDate=2024-03-05%2007%3A08%3A09&ServerPath=%5CBackup%5CMy%20Docs&"
        "FilterExts=&FilterPaths=&MaxVersion=10&NextDate=2024-03-06%2000%3A00%3A00&"
        "BeginDate=2024-02-05%2007%3A08%3A09&EndDate=2099-01-01%2000%3A00%3A00&"
        "ResumeDate=1971-01-01%2000%3A00%3A00&RemoteSize=42&IsResume=0&Upgraded=&"
        "OldTaskName=My%20Docs&";
    auto onePath = [&](const std::string& action, int folder, const std::string& path) {
        return header + "Action=" + action + "&IsFolder0=" + std::to_string(folder) + "&Path0=" +
               TransferApiUtil::EncodeURL(path) + "&Serial0=&Action0=1&localPathNum=1";
    };
    EXPECT_EQ(sent, (Strings{onePath("Add", 1, folderA), onePath("Edit", 0, file),
                             onePath("Edit", 1, folderB), header + "Action=Edit&localPathNum=0"}));
    EXPECT_EQ(storedPaths("My Docs"), (Strings{folderA, file, folderB}));

    // Filters: empty entries are skipped, each entry is encoded and followed by a plain "|".
    sent.clear();
    TaskListEntry filtered = makeTask("Filtered");
    filtered.filterExt = {"tmp", "", "o b"};
    filtered.filtedPath = {"/x/y"};
    filtered.bResume = true;
    ASSERT_EQ(client.addOrEditBackupTask(filtered, "Add", "", "", "1"), 0);
    EXPECT_THAT(sent, ElementsAre(ContainsRegex(
                          "&FilterExts=tmp\\|o%20b\\|&FilterPaths=%2Fx%2Fy\\|&MaxVersion=10&.*"
                          "&IsResume=1&Upgraded=1&OldTaskName=Filtered&Action=Add&localPathNum=0$")));
    std::string reply = client.getBackupTasks("Filtered", "false");
    EXPECT_EQ(Functions::GetValueArrayByKey("RETURN_FilterExts", reply), Strings{"tmp|o b"});
    EXPECT_EQ(Functions::GetValueArrayByKey("RETURN_BackupDate", reply), Strings{"03/05/2024 07:08:09"});

    // The service's refusals come back as the request's result.
    EXPECT_EQ(client.addOrEditBackupTask(filtered, "Add", "", "", ""), 6);
    filtered.name = "";
    EXPECT_EQ(client.addOrEditBackupTask(filtered, "Add", "", "", ""), ResultCode::EmptyName);
    filtered.name = "Unknown";
    EXPECT_EQ(client.addOrEditBackupTask(filtered, "Edit", "", "Unknown", ""), ResultCode::OldTaskNotFound);

    // A rename-only edit moves the record and both folders.
    TaskListEntry other = makeTask("C");
    ASSERT_EQ(client.addOrEditBackupTask(other, "Add", "", "", ""), 0);
    for (auto folder : {"\\Backup", "\\Backup\\My Docs", "\\History", "\\History\\My Docs"})
        ASSERT_EQ(api().AddFolder(folder, "", "", false), 0) << folder;

    std::vector<bool> askedEncrypted;
    task.getSvrHistoryFolder = [&](bool encrypted) {
        askedEncrypted.push_back(encrypted);
        return std::string("\\History");
    };
    task.name = "New";
    sent.clear();
    ASSERT_EQ(client.addOrEditBackupTask(task, "Edit", "", "My Docs", ""), 0);

    EXPECT_THAT(sent, ElementsAre(ContainsRegex("&TaskName=New&.*&ServerPath=%5CBackup%5CNew&.*"
                                                "&OldTaskName=My%20Docs&Action=Edit&localPathNum=0$")));
    EXPECT_EQ(task.serverPath, "\\Backup\\New");
    EXPECT_EQ(askedEncrypted, (std::vector<bool>{false}));
    EXPECT_EQ(onService({"\\Backup\\New", "\\Backup\\My Docs", "\\History\\New", "\\History\\My Docs"}),
              (Strings{"\\Backup\\New", "\\History\\New"}));

    ASSERT_EQ(client.getTaskNames("true"), 0);
    EXPECT_EQ(client.strTaskNames, "New|Filtered|C");
    EXPECT_EQ(client.deleteTasks(""), ResultCode::EmptyName);
    EXPECT_EQ(client.deleteTasks("Filtered|C"), 0);
    ASSERT_EQ(client.getTaskNames("true"), 0);
    EXPECT_EQ(client.taskNamesArray, (Strings{"New"}));
    EXPECT_EQ(storedPaths("New"), (Strings{folderA, file, folderB}));

    // A plain edit under the same name keeps the folders where they are.
    sent.clear();
    task.addFileArray = {"/data/two"};
    ASSERT_EQ(client.addOrEditBackupTask(task, "Edit", "", "New", ""), 0);
    EXPECT_EQ(askedEncrypted.size(), 1u);
    EXPECT_EQ(task.serverPath, "\\Backup\\New");
    EXPECT_EQ(storedPaths("New"), (Strings{folderA, file, folderB, "/data/two"}));

    api().Logoff();
    EXPECT_EQ(client.getBackupTasks("", "false"), "");
    EXPECT_EQ((std::vector<int64_t>{client.iResult, client.getTaskNames("true"),
                                    client.addOrEditBackupTask(task, "Add", "", "", ""),
                                    client.deleteTasks("New")}),
              std::vector<int64_t>(4, ResultCode::NotLoggedOn));
}

TEST_F(CManageTaskListTest, MigrationSendsTheOldSourcesAsGivenAndAnySettingTextSendsBatchesOfAHundred) {
    TaskListEntry task = makeTask("Moved");
    task.localDirList = {"C:\\Data", "C:\\Mail"};
    ASSERT_EQ(client.addOrEditBackupTask(task, "Add", "", "", ""), 0);

    task.bMigrateTask = true;
    task.sourceInfoArray = {{{"PathID", "C:\\Data"}, {"TypeID", "1"}},
                            {{"PathID", "C:\\Mail"}, {"TypeID", "0"}}};
    task.addFileArray = {home.path()};
    sent.clear();
    ASSERT_EQ(client.addOrEditBackupTask(task, "Edit", "", "Moved", "1"), 0);
    ASSERT_EQ(sent.size(), 4u);
    EXPECT_THAT(sent[0], ContainsRegex("&Upgraded=1&.*"
                                       "&IsFolder0=1&Path0=C%3A%5CData&Serial0=&Action0=0&localPathNum=1$"));
    EXPECT_THAT(sent[1], EndsWith("&IsFolder0=0&Path0=C%3A%5CMail&Serial0=&Action0=0&localPathNum=1"));
    EXPECT_THAT(sent[2], HasSubstr("&IsFolder0=1&Path0=" + TransferApiUtil::EncodeURL(home.path()) + "&"));
    EXPECT_EQ(storedPaths("Moved"), (Strings{home.path()}));

    // Keeping only the first computer's paths sends the header alone.
    task.bOnlyMigrateTaskOrignalPath = true;
    sent.clear();
    ASSERT_EQ(client.addOrEditBackupTask(task, "Edit", "", "Moved", "1"), 0);
    EXPECT_THAT(sent, ElementsAre(EndsWith("&Action=Edit&localPathNum=0")));

    // localFile numbers from the given count, except for removals, which start at 0.
    EXPECT_EQ(client.localFile({"/p", "/q"}, "1", "H&", 3),
              "H&IsFolder3=0&Path3=%2Fp&Serial3=&Action3=1&IsFolder4=0&Path4=%2Fq&Serial4=&Action4=1&");
    EXPECT_EQ(client.localFile({"/p"}, "0", "", 3), "IsFolder0=0&Path0=%2Fp&Serial0=&Action0=0&");

    // Any setting text sends batches of a hundred.
    ASSERT_TRUE(NimboSetting::SetSettingValueForKey("UploadLocalPathCount", "no"));
    sent.clear();
    task = makeTask("Big");
    for (int i = 0; i < 250; ++i)
        task.localDirList.push_back("/src/" + std::to_string(i));
    ASSERT_EQ(client.addOrEditBackupTask(task, "Add", "", "", ""), 0);

    ASSERT_EQ(sent.size(), 3u);
    for (size_t r = 0; r < 3; ++r) { // indexed from 0, the last one IsFolder99 (or 49)
        std::string last = r < 2 ? "99" : "49", count = r < 2 ? "100" : "50";
        EXPECT_THAT(sent[r], ContainsRegex(std::string("&Action=") + (r ? "Edit" : "Add") +
                                           "&IsFolder0=0&Path0=%2Fsrc%2F" + std::to_string(r * 100) +
                                           "&.*&IsFolder" + last + "=0&[^I]*&localPathNum=" + count + "$"));
    }
    EXPECT_EQ(storedPaths("Big"), task.localDirList);

    // Removals come first and share the count with additions: two full requests, one empty.
    sent.clear();
    task.deleteFileArray.assign(task.localDirList.begin(), task.localDirList.begin() + 150);
    for (int i = 0; i < 50; ++i)
        task.addFileArray.push_back("/new/" + std::to_string(i));
    ASSERT_EQ(client.addOrEditBackupTask(task, "Edit", "", "Big", ""), 0);
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_THAT(sent[1],
                HasSubstr("&Path49=%2Fsrc%2F149&Serial49=&Action49=0&IsFolder50=0&Path50=%2Fnew%2F0&"));
    EXPECT_THAT(sent[2], EndsWith("&Action=Edit&localPathNum=0"));
    Strings stored(task.localDirList.begin() + 150, task.localDirList.end());
    stored.insert(stored.end(), task.addFileArray.begin(), task.addFileArray.end());
    EXPECT_EQ(storedPaths("Big"), stored);
}

TEST(CManageTaskList, ResultMessagesByListType) {
    CManageTaskList client;
    EXPECT_EQ(client.showManageTaskListResult(0, 0), " Add/Edit successfully.");
    EXPECT_EQ(client.showManageTaskListResult(2, 0), "Task name can\u2019t be empty.");
    EXPECT_EQ(client.showManageTaskListResult(6, 0), "Already exists same backup task.");
    EXPECT_EQ(client.showManageTaskListResult(1, 1), "Not logon.");
    EXPECT_EQ(client.showManageTaskListResult(2, 2), "Task name is required.");
    // Codes a list type does not name fall back to the framework's generic text.
    EXPECT_EQ(client.showManageTaskListResult(2, 1), TransferApiUtil::stringWithReturnCode(2));
    EXPECT_EQ(client.showManageTaskListResult(4, 2), TransferApiUtil::stringWithReturnCode(4));
    EXPECT_EQ(client.showManageTaskListResult(0, 7), TransferApiUtil::stringWithReturnCode(0));
}

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <set>
#include <tuple>
#include <vector>

#include "common/TempHome.h"
#include "engine/manager/CBackupManage.h"
#include "platform/framework/PropertyList.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"
#include "platform/os/Thread.h"

using namespace cirrovault;

namespace {

using TaskPtr = std::shared_ptr<CBackupTask>;

TaskPtr makeTask(const std::string& name) {
    auto task = std::make_shared<CBackupTask>();
    task->name = name;
    return task;
}

using HostCall = std::tuple<CBackupManage*, TaskPtr, int32_t>;

struct RecordingHost : StowlineBackupManageDelegate {
    explicit RecordingHost(bool answer) : answer(answer) {}
    bool StowlineBackupManageDelegateFun(CBackupManage* manager, const TaskPtr& task,
                                         int32_t type) override {
        calls.emplace_back(manager, task, type);
        return answer;
    }
    bool answer;
    std::vector<HostCall> calls;
};

class BackupManageDelegate : public ::testing::Test {
protected:
    void SetUp() override { SystemLog::startCapture(); }
    void TearDown() override { SystemLog::stopCapture(); }

    std::string productFolder() const {
        return home_.dataHome() + "/Cirrovault/Cirrovault Online Backup";
    }
    std::string identityFile() const { return productFolder() + "/PCInfo.dat"; }

    test::TempHome home_;
};
using BackupManageIdentity = BackupManageDelegate;

} // namespace

TEST_F(BackupManageDelegate, FinishClearsOnlyTheWorkingTaskAndHostHearsTheRestAndRefusalsOnlyLog) {
    CBackupManage manager;
    RecordingHost host(false);
    manager.SetDelegate(&host);
    auto task = makeTask("Docs");
    manager.SetWorkingTask(task);
    manager.StowlineDelegateFun(makeTask("Music"), finishedTaskDelegate);
    EXPECT_EQ(manager.pWorkingTask, task);
    EXPECT_TRUE(manager.errTaskList.empty());
    // Tasks are told apart by name: a reloaded copy of the working task ends it.
    auto copy = makeTask("Docs");
    copy->bHaveErr = true;
    manager.StowlineDelegateFun(copy, finishedTaskDelegate);
    EXPECT_EQ(manager.pWorkingTask, nullptr);
    EXPECT_EQ(manager.errTaskList, std::vector<TaskPtr>{copy});
    EXPECT_EQ(SystemLog::capturedCount("Set working task nil"), 2u);
    // A null task counts as working, so its end clears whatever runs.
    manager.SetWorkingTask(task);
    manager.StowlineDelegateFun(nullptr, finishedTaskDelegate);
    EXPECT_EQ(manager.pWorkingTask, nullptr);
    EXPECT_TRUE(host.calls.empty());

    manager.SetWorkingTask(task);
    auto sendAll = [&] {
        SystemLog::startCapture();
        for (int32_t type : {0, 1, 2, 3, 4, 5, 6, 7, 42, -1})
            EXPECT_TRUE(manager.StowlineDelegateFun(task, static_cast<StowlineDelegateType>(type)));
    };
    sendAll();
    EXPECT_EQ(host.calls, (std::vector<HostCall>{{&manager, task, 1}, {&manager, task, 2},
                                                 {&manager, task, 4}, {&manager, task, 5}}));
    EXPECT_EQ(SystemLog::capturedCount(
                  "Error: beginUploadTaskDelegate or endUploadTaskDelegate manage delegate."),
              2u);
    EXPECT_EQ(SystemLog::capturedCount("Error: refreshProgressBarDelegate manage delegate."), 1u);
    EXPECT_EQ(SystemLog::capturedCount("Error: closeProgressBarViewDelegate Delegate."), 1u);
    EXPECT_EQ(manager.pWorkingTask, nullptr); // the end of the run is still recorded

    host.answer = true;
    for (auto* delegate : {&host, static_cast<RecordingHost*>(nullptr)}) {
        manager.SetDelegate(delegate);
        sendAll();
        EXPECT_FALSE(SystemLog::capturedContains("Error"));
    }
}

// Runs end on their own threads while the scheduler and the host ask for the working
// task: every question and change of it goes through the manager's lock.
TEST_F(BackupManageDelegate, FinishEventsMeetWorkingTaskQueriesFromOtherThreads) {
    CBackupManage manager;
    std::vector<TaskPtr> tasks;
    std::vector<std::unique_ptr<Thread>> threads;
    for (int i = 0; i < 4; ++i) {
        TaskPtr task = tasks.emplace_back(makeTask("T" + std::to_string(i)));
        task->bHaveErr = (i % 2 == 0);
        threads.push_back(std::make_unique<Thread>([&manager, task] {
            for (int n = 0; n < 300; ++n)
                manager.StowlineDelegateFun(task, finishedTaskDelegate);
        }));
    }
    threads.push_back(std::make_unique<Thread>([&] {
        for (int n = 0; n < 1200; ++n) {
            manager.SetWorkingTask(tasks[n % 4]);
            manager.isWorkingTask(tasks[(n + 1) % 4]);
            manager.getTasksList();
        }
    }));
    for (auto& thread : threads)
        thread->start();
    for (auto& thread : threads)
        thread->join();

    std::multiset<std::string> names;
    for (const auto& task : manager.errTaskList)
        names.insert(task->name);
    EXPECT_EQ(names, (std::multiset<std::string>{"T0", "T2"}));
}

TEST_F(BackupManageIdentity, MadeOnceThenReadBackUnchangedAndDamagedFileComesBackFromItsCopy) {
    CBackupManage first;
    first.initMyID();
    EXPECT_TRUE(SystemLog::capturedContains("No error saving pcINFO data."));
    EXPECT_EQ(first.identityProblem, "");
    auto bytes = FileSystem::readFile(identityFile());
    ASSERT_TRUE(bytes);

    auto plist = PropertyList::parse(*bytes);
    // The identifier is a decimal text, not a number node.
    EXPECT_EQ(plist, PropertyList(PlistDict{{"PC ID", PropertyList(std::to_string(first.pcID))},
                                            {"PC Name", PropertyList(first.pcName)}}));

    // Later starts read the same identity and never rewrite the file.
    for (int i = 0; i < 2; ++i) {
        CBackupManage later;
        later.initMyID();
        EXPECT_EQ(std::tie(later.pcID, later.pcName), std::tie(first.pcID, first.pcName));
    }
    EXPECT_EQ(FileSystem::readFile(identityFile()), bytes);
    EXPECT_EQ(SystemLog::capturedCount("No error creating initMyID."), 2u);

    // Another property-list reader takes the file as it is.
    if (FileSystem::exists("/usr/bin/plistutil")) {
        std::string binary = home_.file("pcinfo.bin");
        std::string command = "/usr/bin/plistutil -i '" + identityFile() + "' -o '" + binary +
                              "' -f bin >/dev/null 2>&1";
        ASSERT_EQ(std::system(command.c_str()), 0);
        EXPECT_EQ(PropertyList::parse(FileSystem::readFile(binary).value_or("")), plist);
    }

    ASSERT_TRUE(FileSystem::writeFileAtomically(identityFile(), "<plist><dict><key>PC"));
    CBackupManage restored;
    restored.initMyID();
    EXPECT_EQ(restored.pcID, first.pcID);
    EXPECT_EQ(restored.identityProblem, "");
    EXPECT_EQ(FileSystem::readFile(identityFile()), bytes);
    EXPECT_EQ(FileSystem::readFile(identityFile() + ".damaged"), "<plist><dict><key>PC");

    ASSERT_TRUE(FileSystem::removeItem(identityFile())); // a lost file too
    CBackupManage lost;
    lost.initMyID();
    EXPECT_EQ(lost.pcID, first.pcID);

    ASSERT_TRUE(FileSystem::writeFileAtomically(identityFile(), "x"));
    ASSERT_TRUE(FileSystem::writeFileAtomically(productFolder() + "/PCInfo.copy", "y"));
    CBackupManage neither;
    neither.initMyID();
    EXPECT_EQ(neither.pcID, 0u);
    EXPECT_NE(neither.identityProblem.find("task migrate"), std::string::npos);
    EXPECT_EQ(FileSystem::readFile(identityFile()), "x");
}

TEST_F(BackupManageIdentity, FileWithoutAGoodIdentityIsReadAsItIsAndLeftAlone) {
    auto plist = [](PlistDict dict) { return PropertyList(std::move(dict)).toXml(); };
    std::string valid = plist({{"PC ID", PropertyList("77")}, {"PC Name", PropertyList("desk")}});
    // The file's content, then the identity and whether the file reads as damaged.
    const std::tuple<std::string, uint64_t, std::string, bool> cases[] = {
        // A damaged file or one without the keys leaves the identity as it was.
        {"", 0, "before", true},
        {valid.substr(0, valid.size() / 2), 0, "before", true},
        {PropertyList(PlistArray{PropertyList("77")}).toXml(), 0, "before", true},
        {plist({}), 0, "before", false}, // no identity, but nothing wrong with the file
        // Numbers are read like a C int: leading digits, else 0.
        {plist({{"PC ID", PropertyList(" 42abc")}, {"PC Name", PropertyList("desk")}}), 42, "desk", false},
        {plist({{"PC ID", PropertyList("desk")}}), 0, "", false}, // the name read as missing
    };
    ASSERT_TRUE(FileSystem::createDirectories(productFolder()));
    for (const auto& [content, id, name, damaged] : cases) {
        SCOPED_TRACE(content);
        ASSERT_TRUE(FileSystem::writeFileAtomically(identityFile(), content));
        SystemLog::startCapture();
        CBackupManage manager;
        manager.pcName = "before";
        manager.initMyID();
        EXPECT_EQ(std::tie(manager.pcID, manager.pcName), std::tie(id, name));
        EXPECT_EQ(SystemLog::capturedContains("Error: PCInfo.dat holds no identity"), damaged);
        EXPECT_EQ(SystemLog::capturedContains("Error"), damaged);
        EXPECT_EQ(FileSystem::readFile(identityFile()), content);
    }
}

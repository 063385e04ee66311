#include <thread>

#include <gtest/gtest.h>

#include "common/ManualClockScope.h"

#include "platform/framework/Functions.h"
#include "platform/framework/TaskListServer.h"
#include "platform/os/ResultCodes.h"
#include "platform/os/SystemLog.h"
#include "platform/os/UrlCoding.h"
#include "platform/store/FaultInjectingStore.h"

using namespace cirrovault;

namespace {

// A task-list document versioned with compare-and-swap; members are touched between requests.
class MemoryTaskListStore : public FaultInjectingStore {
public:
    MemoryTaskListStore() : FaultInjectingStore(nullptr) {}
    std::function<void()> beforeWrite; // runs once, before the next write
    bool failReads = false, alwaysConflict = false;
    std::string document, version;
    int writes = 0;

    void setDocument(const std::string& text) {
        document = text;
        version = "v" + std::to_string(++writes);
    }
    int64_t readTaskList(std::string& text, std::string& read) override {
        std::lock_guard lock(mutex_);
        text = document;
        read = version;
        return failReads ? ResultCode::Failure : ResultCode::Success;
    }
    int64_t writeTaskList(const std::string& text, const std::string& expectedVersion) override {
        std::unique_lock lock(mutex_);
        if (auto hook = std::exchange(beforeWrite, nullptr)) {
            lock.unlock();
            hook();
            lock.lock();
        }
        if (alwaysConflict || expectedVersion != version)
            return ResultCode::Conflict;
        setDocument(text);
        return ResultCode::Success;
    }

private:
    std::mutex mutex_;
};

const auto enc = UrlCoding::encode;
using Strings = std::vector<std::string>;
using Codes = std::vector<int64_t>; // the codes of calls made in order, one comparison
using namespace ResultCode;
using Entries = std::vector<std::pair<std::string, bool>>; // {path, add?}

std::string request(const std::string& name, const std::string& action, const Entries& entries = {},
                    const std::string& oldName = "", int taskID = 7) {
    std::string text =
        "TaskID=" + std::to_string(taskID) +
        "&ComputerID=18446744073709551615&TaskName=" + enc(name) +
        "&Descr=My%20docs%20%26%20more&PcName=box&Type=-2147483631" +
        "&BackupDate=2024-03-05%2007%3A08%3A09&ServerPath=" + enc("\\Backup\\" + name) +
        "&FilterExts=a%20b|tmp|&FilterPaths=&MaxVersion=10&NextDate=2024-03-06%2000%3A00%3A00"
        "&BeginDate=2024-02-05%2007%3A08%3A09&EndDate=2099-01-01%2000%3A00%3A00"
        "&ResumeDate=1971-01-01%2000%3A00%3A00&RemoteSize=123&IsResume=1&Upgraded="
        "&OldTaskName=" +
        enc(oldName.empty() ? name : oldName) + "&Action=" + action + "&";
    for (size_t i = 0; i < entries.size(); ++i) {
        std::string n = std::to_string(i);
        text += "IsFolder" + n + "=1&Path" + n + "=" + enc(entries[i].first) + "&Serial" + n +
                "=&Action" + n + "=" + (entries[i].second ? "1" : "0") + "&";
    }
    return text + "localPathNum=" + std::to_string(entries.size());
}

const auto valuesOf = Functions::GetValueArrayByKey;
Strings pathsOf(TaskListServer& server, const std::string& name) {
    std::string reply;
    EXPECT_EQ(server.getTaskList(name, "true", reply), 0);
    return valuesOf("RETURN_Path", reply);
}

struct Fixture {
    std::shared_ptr<MemoryTaskListStore> store = std::make_shared<MemoryTaskListStore>();
    TaskListServer server{store, true};
    int64_t up(const std::string& name, const std::string& action, const Entries& entries = {},
               const std::string& oldName = "", int taskID = 7) {
        return server.UploadTaskList(request(name, action, entries, oldName, taskID));
    }
};

} // namespace

TEST(TaskListServer, AddListNamesAndDeleteAnswerEveryReplyKeyAndResultCode) {
    Fixture f;
    TaskListServer loggedOff(f.store, false);
    std::string reply = "stale", names;
    EXPECT_EQ(
        (Codes{loggedOff.UploadTaskList(request("Docs", "Add")),
               loggedOff.getTaskList("", "false", reply), loggedOff.getTaskNames("true", names),
               loggedOff.deleteTasks("Docs"), f.up("", "Add"), f.up("Docs", "Edit"),
               f.up("Mail|x", "Add")}),
        (Codes{NotLoggedOn, NotLoggedOn, NotLoggedOn, NotLoggedOn, EmptyName, OldTaskNotFound,
               BadRequest}));
    EXPECT_EQ(reply, "");
    EXPECT_EQ(f.store->writes, 0);
    ASSERT_EQ(f.up("Docs", "Add", {{"/home/u/Docs", true}}), 0);
    ASSERT_EQ(f.up("Photos", "Add", {}, "", 9), 0);

    ASSERT_EQ(f.server.getTaskList("", "false", reply), 0);
    EXPECT_EQ(valuesOf("RETURN_TaskName", reply), (Strings{"Docs", "Photos"}));
    EXPECT_EQ(valuesOf("RETURN_TaskID", reply), (Strings{"7", "9"}));
    // Dates come back in the reply form; "ETURN_MaxVersion" is the key clients read.
    for (auto [key, value] : std::map<std::string, std::string>{
             {"RETURN_Descr", "My docs & more"}, {"RETURN_PcName", "box"},
             {"RETURN_Type", "-2147483631"}, {"RETURN_BackupDate", "03/05/2024 07:08:09"},
             {"RETURN_NextDate", "03/06/2024 00:00:00"}, {"RETURN_BeginDate", "02/05/2024 07:08:09"},
             {"RETURN_EndDate", "01/01/2099 00:00:00"}, {"RETURN_ResumeDate", "01/01/1971 00:00:00"},
             {"RETURN_ServerPath", "\\Backup\\Docs"}, {"RETURN_FilterExts", "a b|tmp"},
             {"RETURN_FilterPaths", ""}, {"ETURN_MaxVersion", "10"}, {"RETURN_IsResume", "1"},
             {"RETURN_PcID", "18446744073709551615"}})
        EXPECT_EQ(valuesOf(key, reply).at(0), value) << key;
    EXPECT_EQ(valuesOf("RETURN_MaxVersion", reply).size() + valuesOf("RETURN_Path", reply).size(),
              0u); // the paths were not asked for

    ASSERT_EQ(f.server.getTaskList("Docs", "true", reply), 0);
    EXPECT_EQ((std::vector{valuesOf("RETURN_TaskName", reply), valuesOf("RETURN_Path", reply),
                           valuesOf("RETURN_IsFolder", reply)}),
              (std::vector<Strings>{{"Docs"}, {"/home/u/Docs"}, {"1"}}));
    ASSERT_EQ(f.server.getTaskList("Nothing", "true", reply), 0);
    EXPECT_EQ(reply, "");
    EXPECT_EQ(f.server.getTaskList("", "yes", reply), BadRequest);
    ASSERT_EQ(f.server.getTaskNames("true", reply), 0);
    EXPECT_EQ(reply, "Docs|Photos");

    for (auto name : {"A", "B", "C"})
        ASSERT_EQ(f.up(name, "Add"), 0);
    // Added twice, renamed onto a taken name or to nothing; deletes of nothing, one, several.
    EXPECT_EQ(
        (Codes{f.up("Docs", "Add"), f.up("Photos", "Edit", {}, "Docs"),
               f.up("", "Edit", {}, "Docs"), f.server.deleteTasks(""), f.server.deleteTasks("||"), f.server.deleteTasks("B"),
               f.server.deleteTasks("A|Gone|C|"), f.server.deleteTasks("Gone")}),
        (Codes{6, 6, EmptyName, EmptyName, EmptyName, 0, 0, 0}));
    ASSERT_EQ(f.server.getTaskNames("false", names), 0);
    EXPECT_EQ(names, "Docs|Photos");
    ASSERT_EQ(f.server.deleteTasks("Docs|Photos") + f.server.getTaskNames("false", names), 0);
    EXPECT_EQ(names, "");
}

TEST(TaskListServer, DamagedRequestsAreRefusedAndADamagedStoreIsAStorageErrorNotOverwritten) {
    Fixture f;
    ASSERT_EQ(f.up("Docs", "Add", {{"/a", true}}), 0);
    const std::string before = f.store->document;
    const int writes = f.store->writes;

    std::string good = request("Docs", "Edit", {{"/b", true}, {"/c", true}});
    auto replaced = [&](const std::string& from, const std::string& to) {
        std::string text = good;
        EXPECT_NE(text.find(from), text.npos) << from;
        return text.replace(text.find(from), from.size(), to);
    };
    const std::vector<std::string> damaged = {
        "", "garbage", replaced("TaskID=7&", ""), // a key missing
        replaced("TaskID=7", "TaskID=seven"), replaced("TaskID=7", "TaskID=99999999999"),
        replaced("MaxVersion=10", "MaxVersion=-1"), replaced("Type=-2147483631", "Type=1x"),
        replaced("BackupDate=2024-03-05", "BackupDate=2024-13-05"),
        replaced("%2007%3A08", "%20x7%3A08"), replaced("Descr=My%20docs", "Descr=My%2Zdocs"),
        replaced("Descr=My%20docs%20%26%20more", "Descr=My%2"),
        replaced("IsResume=1", "IsResume=2"), replaced("Action=Edit", "Action=Delete"),
        // List separators stay plain; a list ends in "|" and has no empty entry.
        replaced("a%20b|tmp|", "a%20b%7Ctmp%7C"), replaced("|tmp|", "|tmp"),
        replaced("|tmp|", "||"),
        // Path entries out of order, with bad values, or counted wrong.
        replaced("IsFolder1=", "IsFolder2="), replaced("Path1=", "Serial1="),
        replaced("Action1=1", "Action1=3"), replaced("IsFolder0=1", "IsFolder0=yes"),
        replaced("Path0=%2Fb", "Path0="), replaced("localPathNum=2", "localPathNum=3"),
        replaced("localPathNum=2", "localPathNum=1"), replaced("&localPathNum=2", ""),
        good + "&", good + "&Extra=1", replaced("Upgraded=&", "Upgraded&")};
    SystemLog::startCapture();
    for (const auto& text : damaged)
        EXPECT_EQ(f.server.UploadTaskList(text), BadRequest) << text;
    EXPECT_TRUE(SystemLog::capturedContains("Error: task list request refused"));
    SystemLog::stopCapture();
    EXPECT_TRUE(f.store->document == before && f.store->writes == writes);
    EXPECT_EQ(pathsOf(f.server, "Docs"), (Strings{"/a"}));

    EXPECT_EQ(f.server.UploadTaskList(good), 0); // the undamaged text is taken
    EXPECT_EQ(pathsOf(f.server, "Docs"), (Strings{"/a", "/b", "/c"}));

    std::string reply;
    f.store->setDocument("<plist>not a task list");
    SystemLog::startCapture();
    EXPECT_EQ((Codes{f.up("Docs", "Add"), f.server.getTaskList("", "false", reply),
                     f.server.deleteTasks("Docs")}),
              (Codes{StorageError, StorageError, StorageError}));
    EXPECT_TRUE(SystemLog::capturedContains("damaged task list document"));
    SystemLog::stopCapture();
    EXPECT_EQ(f.store->document, "<plist>not a task list");

    f.store->setDocument(
        R"(<?xml version="1.0"?><plist version="1.0"><dict><key>FormatVersion</key>)"
        R"(<integer>1</integer><key>Tasks</key><array><string>x</string></array>)"
        R"(</dict></plist>)");
    EXPECT_EQ(f.up("Docs", "Add"), StorageError);

    f.store->setDocument("");
    f.store->failReads = true;
    EXPECT_EQ((Codes{f.up("Docs", "Add"), f.server.getTaskNames("true", reply)}),
              (Codes{StorageError, StorageError}));

    // A NUL byte in a name is refused before the parser (which would end the process) sees it.
    f.store->failReads = false;
    std::string withNul = before;
    ASSERT_NE(withNul.find(">Docs<"), std::string::npos) << withNul;
    withNul.insert(withNul.find(">Docs<") + 3, 1, '\0');
    f.store->setDocument(withNul);
    EXPECT_EQ(f.server.getTaskList("", "false", reply), StorageError);
    EXPECT_EQ(f.store->document, withNul);
}

TEST(TaskListServer, EditRenamesAddsOrRemovesPathsAndReappliesOnTheNewerListUntilItGivesUp) {
    test::ManualClockScope clock;
    Fixture f;
    ASSERT_EQ(f.up("Docs", "Add", {{"/a", true}, {"/b", true}}), 0);
    // A rename with paths: removing /a, adding /b again (no duplicate) and /c.
    ASSERT_EQ(f.up("Papers", "Edit", {{"/a", false}, {"/b", true}, {"/c", true}}, "Docs"), 0);
    // The next batch of the same edit still names the old task; it finds the renamed one.
    ASSERT_EQ(f.up("Papers", "Edit", {{"/d", true}, {"/zz", false}}, "Docs"), 0);
    std::string names, reply;
    ASSERT_EQ(f.server.getTaskNames("true", names), 0);
    ASSERT_EQ(f.server.getTaskList("Papers", "false", reply), 0);
    EXPECT_EQ(names + " " + valuesOf("RETURN_ServerPath", reply).at(0), "Papers \\Backup\\Papers");
    EXPECT_EQ(pathsOf(f.server, "Papers"), (Strings{"/b", "/c", "/d"}));

    EXPECT_EQ(f.up("Papers", "Edit", {}, "Docs", 99), OldTaskNotFound); // another task, same name

    // Another client adds a path between this request's read and its write.
    f.store->beforeWrite = [&] {
        ASSERT_EQ(Fixture{f.store}.up("Papers", "Edit", {{"/other", true}}), 0);
    };
    ASSERT_EQ(f.up("Papers", "Edit", {{"/mine", true}}), 0);
    EXPECT_EQ(pathsOf(f.server, "Papers"), (Strings{"/b", "/c", "/d", "/other", "/mine"}));

    f.store->alwaysConflict = true;
    SystemLog::startCapture();
    EXPECT_EQ(f.up("Papers", "Edit", {{"/never", true}}), StorageError);
    EXPECT_TRUE(SystemLog::capturedContains("gave up after"));
    SystemLog::stopCapture();
}

TEST(TaskListServerConcurrency, ThreadsEditingOneTaskLoseNoPath) {
    Fixture f;
    ASSERT_EQ(f.up("Docs", "Add"), 0);
    constexpr int kThreads = 4, kPaths = 25;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            Fixture client{f.store};
            for (int i = 0; i < kPaths; ++i)
                EXPECT_EQ(client.up("Docs", "Edit",
                                    {{"/t" + std::to_string(t) + "/" + std::to_string(i), true}}),
                          0);
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(pathsOf(f.server, "Docs").size(), static_cast<size_t>(kThreads * kPaths));
}

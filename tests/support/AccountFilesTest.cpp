#include <algorithm>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <regex>
#include <sstream>
#include <vector>

#include "common/ManualClockScope.h"
#include "common/TempHome.h"
#include "platform/framework/Functions.h"
#include "platform/framework/PropertyList.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/os/FileSystem.h"
#include "platform/os/ResultCodes.h"
#include "platform/os/SystemLog.h"
#include "platform/os/Thread.h"
#include "platform/store/local/LocalStore.h"
#include "support/CErrorLog.h"
#include "support/OptionsMan.h"

using namespace cirrovault;

namespace {

// Logs the shared session on for the life of the object, over a local store that answers a
// chosen customer ID, even one no store would make: for code that keeps per-account files.
struct AccountSession {
    explicit AccountSession(std::string customerID) {
        struct ChosenCustomerStore : LocalStore {
            ChosenCustomerStore(std::string id)
                : LocalStore(std::string(std::getenv("HOME")) + "/account-store"), id(std::move(id)) {}
            int64_t logon(const std::string& user, const std::string& password, StoreSession& session) override {
                int64_t result = LocalStore::logon(user, password, session);
                session.customerID = id;
                return result;
            }
            std::string id;
        };
        auto& api = TransferApiUtil::shareTransferApiUtil();
        api.SetBackend(std::make_shared<ChosenCustomerStore>(std::move(customerID)));
        EXPECT_EQ(api.Logon("tester", "secret"), ResultCode::Success);
    }
    ~AccountSession() {
        TransferApiUtil::shareTransferApiUtil().Logoff();
        TransferApiUtil::shareTransferApiUtil().SetBackend(nullptr);
    }
};

} // namespace

static const std::string kMark = "4.500000\n";

class EventLogAndOptions : public ::testing::Test {
protected:
    void SetUp() override {
        CErrorLog::releaseErrorLogClass();
        OptionsMan::clearnOptionsManClass();
    }
    void TearDown() override { SetUp(); }

    std::string logFile() const { return home.dataHome() + "/Cirrovault/Cirrovault Online Backup/errlog.log"; }
    std::string publicFile() const { return home.dataHome() + "/Cirrovault/Options/OnlineBackup/Options.plist"; }
    // Every option in one line: minutes, then the flags, then the report address.
    static std::string options() {
        return std::to_string(OptionsMan::intervalMinutes()) + " " +
               std::to_string(OptionsMan::IsAutoStartScheduleAfterMinutes()) + std::to_string(OptionsMan::IsAutoRun()) +
               std::to_string(OptionsMan::IsUseSSL()) + std::to_string(OptionsMan::IsReportWhenError()) +
               std::to_string(OptionsMan::IsReportWhenFinish()) + " " + OptionsMan::reportEmail();
    }
    static constexpr const char* kDefaults = "1 10000 ";

    test::TempHome home;
};

TEST_F(EventLogAndOptions, EventLogRecordsAreWrittenByteExactUnderOneMarkAndEscapingRoundTrips) {
    test::ManualClockScope clock(Date(1714568709.0));
    std::string time = Functions::stringTransFromedDate(clock.clock->now(), "yyyy-MM-dd HH:mm:ss");

    EXPECT_EQ(CErrorLog::GetEventLogFilePath(), logFile());
    EXPECT_FALSE(FileSystem::exists(logFile())) << "asking for the path creates nothing";
    ASSERT_TRUE(CErrorLog::recordError("Docs", 1804289383, "Upload failed: 100% of a|b", 2));
    ASSERT_TRUE(CErrorLog::recordError("Docs", -7, "Backup started.", 0));
    ASSERT_TRUE(CErrorLog::recordError("Docs", 0, "", 1));
    ASSERT_TRUE(CErrorLog::recordError("Docs", 3, "odd kind", 5));

    EXPECT_EQ(FileSystem::readFile(logFile()),
              kMark + "Docs|1804289383|Upload failed: 100%25 of a%7cb|" + time + "|Error\n" +
                  "Docs|-7|Backup started.|" + time + "|Information\n" + "Docs|0||" + time +
                  "|Warning\n" + "Docs|3|odd kind|" + time + "|\n");

    EXPECT_EQ(CErrorLog::EncodeEventMsg("%7c%25"), "%257c%2525");
    EXPECT_EQ(CErrorLog::DecodeEventMsg("a%7Cb%41%7c%25"), "a%7Cb%41|%"); // only two sequences
    EXPECT_EQ(CErrorLog::EncodeEventMsg(std::nullopt), std::nullopt);
    EXPECT_EQ(CErrorLog::DecodeEventMsg(std::nullopt), std::nullopt);

    const std::string messages[] = {"",    "|",      "%",       "%7c",  "%25",  "%7C",
                                    "%%||", "%7%7c|", "%257c|%", "é|%ü", "a%|%7c|%2525b"};
    for (const std::string& message : messages)
        EXPECT_EQ(CErrorLog::DecodeEventMsg(CErrorLog::EncodeEventMsg(message)), message) << message;
}

TEST_F(EventLogAndOptions, EventLogListShowsOnlyTheFileThisProcessWroteAndClearStartsAFreshOne) {
    ASSERT_TRUE(FileSystem::createDirectories(home.dataHome() + "/Cirrovault/Cirrovault Online Backup"));
    ASSERT_TRUE(FileSystem::writeFileAtomically(logFile(), kMark + "Old|1|earlier run|t|Error\n"));
    // Nothing is listed before the first record of a process.
    EXPECT_EQ(CErrorLog::GetErrorList(), std::vector<std::string>{});
    ASSERT_TRUE(CErrorLog::recordError("A", 1, "first", 0));
    auto after = CErrorLog::GetErrorList();
    ASSERT_TRUE(after && after->size() == 4u);
    (*after)[2].resize(10);
    EXPECT_EQ(*after, (std::vector<std::string>{"4.500000", "Old|1|earlier run|t|Error", "A|1|first|", ""}));
    CErrorLog::releaseErrorLogClass(); // a fresh instance has forgotten the path
    EXPECT_EQ(CErrorLog::GetErrorList(), std::vector<std::string>{});

    ASSERT_TRUE(CErrorLog::recordError("A", 1, "second", 0));
    EXPECT_TRUE(CErrorLog::clearAllEventLog());
    EXPECT_FALSE(FileSystem::exists(logFile()));
    EXPECT_EQ(CErrorLog::GetErrorList(), std::vector<std::string>{});

    SystemLog::startCapture();
    EXPECT_TRUE(CErrorLog::clearAllEventLog()); // nothing to delete is still done
    EXPECT_TRUE(SystemLog::capturedContains("Error:File not exists"));

    ASSERT_TRUE(CErrorLog::recordError("A", 1, "third", 0));
    auto content = FileSystem::readFile(logFile()).value_or("");
    EXPECT_EQ(content.substr(0, kMark.size() + 10), kMark + "A|1|third|");
    EXPECT_EQ(std::count(content.begin(), content.end(), '\n'), 2);

    // A log whose folder cannot be made (a file stands in the way) answers false.
    ASSERT_TRUE(FileSystem::removeAll(home.dataHome() + "/Cirrovault"));
    ASSERT_TRUE(FileSystem::writeFileAtomically(home.dataHome() + "/Cirrovault", "in the way"));
    EXPECT_FALSE(CErrorLog::recordError("A", 1, "lost", 2));
    EXPECT_EQ(CErrorLog::createErrorLogFile(), "");
    EXPECT_TRUE(SystemLog::capturedContains("event log"));
    SystemLog::stopCapture();
}

TEST_F(EventLogAndOptions, EightEventLogWritersLeaveWholeRecordsUnderOneMark) {
    constexpr int kThreads = 8;
    constexpr int kRecords = 1000;
    std::vector<std::unique_ptr<Thread>> writers;
    for (int t = 0; t < kThreads; ++t) {
        writers.push_back(std::make_unique<Thread>([t] {
            for (int i = 0; i < kRecords; ++i)
                if (!CErrorLog::recordError("task" + std::to_string(t), i, "message | with 100%", 2))
                    ADD_FAILURE() << "record failed";
        }));
        writers.back()->start();
    }
    for (auto& writer : writers)
        writer->join();

    auto content = FileSystem::readFile(logFile()).value_or("");
    ASSERT_EQ(content.substr(0, kMark.size()), kMark);
    EXPECT_EQ(content.back(), '\n');
    std::istringstream lines(content.substr(kMark.size()));
    const std::regex record(R"(task(\d)\|(\d+)\|message %7c with 100%25\|[^|]*\|Error)");
    std::map<int, int> nextOf;
    for (std::string line; std::getline(lines, line);) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, record)) << line;
        EXPECT_EQ(std::stoi(match[2]), nextOf[std::stoi(match[1])]++);
    }
    EXPECT_EQ(nextOf, (std::map<int, int>{{0, kRecords}, {1, kRecords}, {2, kRecords}, {3, kRecords},
                                          {4, kRecords}, {5, kRecords}, {6, kRecords}, {7, kRecords}}));
}

TEST_F(EventLogAndOptions, OptionDefaultsSettersLoadingBeforeSavingAndAFileRoundTripKeepingTypesAndUnknownKeys) {
    EXPECT_EQ(options(), kDefaults);
    OptionsMan::LoadPublicOptions(); // no file: nothing changes
    EXPECT_EQ(options(), kDefaults);

    OptionsMan::SetIntervalMinutes(0); // 0 is a value, not "missing"
    OptionsMan::SetAutoStartScheduleAfterMinutes(false);
    OptionsMan::SetAutoRun(true);
    OptionsMan::SetUseSSL(true);
    OptionsMan::setReportEmail("a@example.com; b@example.com");
    OptionsMan::SetReportWhenError(true);
    OptionsMan::SetReportWhenFinish(true);
    EXPECT_EQ(options(), "0 01111 a@example.com; b@example.com");
    EXPECT_FALSE(FileSystem::exists(publicFile())) << "setters never write the file";

    OptionsMan::SavePublicOptions();
    OptionsMan::SetIntervalMinutes(42);
    OptionsMan::LoadPublicOptions(); // loading before saving discards the change
    EXPECT_EQ(OptionsMan::intervalMinutes(), 0u);

    OptionsMan::clearnOptionsManClass();
    EXPECT_EQ(options(), kDefaults);

    OptionsMan::SetIntervalMinutes(4000000000u);
    OptionsMan::SetReportWhenFinish(true);
    OptionsMan::setReportEmail("me@example.com");
    OptionsMan::SavePublicOptions();

    auto file = PropertyListFile::read(publicFile());
    ASSERT_TRUE(file && file->find("MyOptions")->find("Minutes"));
    EXPECT_EQ(std::get<int64_t>(file->find("MyOptions")->find("Minutes")->value()), 4000000000);
    EXPECT_EQ(std::get<bool>(file->find("EventLog")->find("ReportWhenFinish")->value()), true);
    EXPECT_EQ(*file->find("EventLog")->find("ReportEmail")->string(), "me@example.com");
    ASSERT_TRUE(file->find("SystemOptions")) << "every group is made by a setter";

    // Keys this program does not know are kept through a load and a save.
    (*file->find("SystemOptions")->dict())["CacheSize"] = PropertyList(int64_t{512});
    (*file->dict())["FutureGroup"] = PropertyList(PlistDict{{"k", PropertyList("v")}});
    ASSERT_TRUE(PropertyListFile::write(publicFile(), *file));
    OptionsMan::clearnOptionsManClass();
    OptionsMan::LoadPublicOptions();
    EXPECT_EQ(options(), "4000000000 10001 me@example.com");
    OptionsMan::SetUseSSL(true);
    OptionsMan::SavePublicOptions();
    auto again = PropertyListFile::read(publicFile());
    ASSERT_TRUE(again);
    EXPECT_EQ(std::get<int64_t>(again->find("SystemOptions")->find("CacheSize")->value()), 512);
    EXPECT_EQ(*again->find("FutureGroup")->find("k")->string(), "v");
    EXPECT_EQ(std::get<bool>(again->find("SystemOptions")->find("UseSSL")->value()), true);
}

TEST_F(EventLogAndOptions, DamagedOptionsFileGivesDefaultsAndStoresNothing) {
    std::string good =
        PropertyList(PlistDict{{"MyOptions", PropertyList(PlistDict{{"Minutes", PropertyList(9)}})}}).toXml();
    const std::string damaged[] = {
        "", "not a property list at all", good.substr(0, good.size() / 2),
        PropertyList(PlistArray{PropertyList("x")}).toXml(), // a list where a dictionary belongs
    };
    ASSERT_TRUE(FileSystem::createDirectories(home.dataHome() + "/Cirrovault/Options/OnlineBackup"));
    for (const std::string& content : damaged) {
        SCOPED_TRACE(content);
        OptionsMan::clearnOptionsManClass();
        OptionsMan::SetIntervalMinutes(7);
        ASSERT_TRUE(FileSystem::writeFileAtomically(publicFile(), content));
        SystemLog::startCapture();
        OptionsMan::LoadPublicOptions();
        EXPECT_EQ(SystemLog::capturedCount("Error: damaged options file, using defaults: " + publicFile()), 1u);
        SystemLog::stopCapture();
        EXPECT_EQ(options(), kDefaults);
        OptionsMan::SetIntervalMinutes(5); // no options: nothing is stored
        EXPECT_EQ(OptionsMan::intervalMinutes(), 1u);
        OptionsMan::SavePublicOptions(); // and nothing is written over the file
        EXPECT_EQ(FileSystem::readFile(publicFile()), content);
    }
    // A group that is not a dictionary reads as missing and takes no values.
    ASSERT_TRUE(FileSystem::writeFileAtomically(
        publicFile(), PropertyList(PlistDict{{"MyOptions", PropertyList("oops")}}).toXml()));
    OptionsMan::LoadPublicOptions();
    OptionsMan::SetIntervalMinutes(3);
    EXPECT_EQ(OptionsMan::intervalMinutes(), 1u);
    OptionsMan::SetReportWhenError(true); // other groups still work
    EXPECT_TRUE(OptionsMan::IsReportWhenError());
}

TEST_F(EventLogAndOptions, AccountOptionsAndEventLogAreSeparateFromThePublicOnes) {
    EXPECT_EQ(OptionsMan::getOptionsFile(), OptionsMan::getPublicOptionsFile());
    EXPECT_EQ(OptionsMan::getPublicOptionsFile(), publicFile());
    EXPECT_TRUE(FileSystem::isDirectory(home.dataHome() + "/Cirrovault/Options/OnlineBackup"));

    OptionsMan::SetIntervalMinutes(30);
    OptionsMan::SavePublicOptions();
    {
        AccountSession session("cust-42");
        std::string accountFile = home.dataHome() + "/Cirrovault/Options/OnlineBackup/cust-42/Options.plist";
        EXPECT_EQ(OptionsMan::getOptionsFile(), accountFile);
        std::string accountLog = home.dataHome() + "/Cirrovault/Cirrovault Online Backup/cust-42/errlog.log";
        EXPECT_EQ(CErrorLog::GetEventLogFilePath(), accountLog);
        ASSERT_TRUE(CErrorLog::recordError("A", 1, "mine", 0));
        EXPECT_TRUE(FileSystem::isRegularFile(accountLog));

        OptionsMan::clearnOptionsManClass();
        OptionsMan::SetIntervalMinutes(15);
        OptionsMan::SaveOptions();
        ASSERT_TRUE(FileSystem::isRegularFile(accountFile));

        // The sets are not merged: the last load wins.
        OptionsMan::clearnOptionsManClass();
        std::string loaded;
        for (auto load : {OptionsMan::LoadOptions, OptionsMan::LoadPublicOptions, OptionsMan::LoadOptions})
            loaded += (load(), std::to_string(OptionsMan::intervalMinutes())) + " ";
        EXPECT_EQ(loaded, "15 30 15 ");
    }
    for (const char* strange : {"..", "../escape"}) {
        AccountSession session(strange);
        SystemLog::startCapture();
        EXPECT_EQ(OptionsMan::getOptionsFile(), "");
        OptionsMan::SaveOptions(); // refused, not written outside the options folder
        EXPECT_TRUE(SystemLog::capturedContains("Error: the customer ID cannot name an options folder"));
        SystemLog::stopCapture();
        EXPECT_EQ(CErrorLog::GetEventLogFilePath(), "");
        EXPECT_FALSE(CErrorLog::recordError("A", 1, "nowhere", 0));
    }
    EXPECT_FALSE(FileSystem::exists(home.dataHome() + "/Cirrovault/Options/escape"));
    EXPECT_FALSE(FileSystem::exists(home.dataHome() + "/Cirrovault/Cirrovault Online Backup/errlog.log"));
}

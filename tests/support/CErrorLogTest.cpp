#include <algorithm>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <regex>
#include <sstream>
#include <vector>

#include "common/TempHome.h"
#include "platform/framework/Functions.h"
#include "platform/os/Clock.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"
#include "platform/os/Thread.h"
#include "support/AccountSession.h"
#include "support/CErrorLog.h"

using namespace cirrovault;

static const std::string kMark = "4.500000\n";

class CErrorLogTest : public ::testing::Test {
protected:
    void SetUp() override { CErrorLog::releaseErrorLogClass(); }
    void TearDown() override {
        CErrorLog::releaseErrorLogClass();
        Clock::setShared(nullptr);
    }
    std::string logFile() const { return home.dataHome() + "/Cirrovault/Cirrovault Online Backup/errlog.log"; }

    test::TempHome home;
};

TEST_F(CErrorLogTest, RecordsAreWrittenByteExactUnderOneMarkAndEscapingRoundTrips) {
    auto clock = std::make_shared<ManualClock>(Date(1714568709.0));
    Clock::setShared(clock);
    std::string time = Functions::stringTransFromedDate(clock->now(), "yyyy-MM-dd HH:mm:ss");

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

TEST_F(CErrorLogTest, ListShowsOnlyTheFileThisProcessWroteAndClearStartsAFreshOne) {
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

TEST_F(CErrorLogTest, EachAccountHasItsOwnLog) {
    {
        test::AccountSession session("cust-7");
        std::string accountLog = home.dataHome() + "/Cirrovault/Cirrovault Online Backup/cust-7/errlog.log";
        EXPECT_EQ(CErrorLog::GetEventLogFilePath(), accountLog);
        ASSERT_TRUE(CErrorLog::recordError("A", 1, "mine", 0));
        EXPECT_TRUE(FileSystem::isRegularFile(accountLog));
    }
    {
        test::AccountSession strange("..");
        EXPECT_EQ(CErrorLog::GetEventLogFilePath(), "");
        EXPECT_FALSE(CErrorLog::recordError("A", 1, "nowhere", 0));
    }
    EXPECT_FALSE(FileSystem::exists(logFile()));
}

TEST_F(CErrorLogTest, EightWritersLeaveWholeRecordsUnderOneMark) {
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

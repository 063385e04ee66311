#include <gtest/gtest.h>

#include <algorithm>

#include "engine/task/CBackupTask.h"
#include "platform/framework/LoadString.h"
#include "platform/framework/MailSender.h"
#include "platform/framework/SessionFixture.h"
#include "platform/os/SystemLog.h"
#include "service/CManageTaskList.h"
#include "support/CErrorLog.h"
#include "support/OptionsMan.h"

using namespace cirrovault;

namespace {

class BackupTaskReport : public test::SessionFixture {
protected:
    void SetUp() override {
        SessionFixture::SetUp();
        SystemLog::startCapture();
        CErrorLog::releaseErrorLogClass();
        OptionsMan::clearnOptionsManClass();
        task_ = std::make_shared<CBackupTask>();
        task_->name = "Docs";
        task_->mPCName = "desk";
        task_->taskID = 42;
        task_->serverPath = "\\Backup";
    }
    void TearDown() override {
        OptionsMan::clearnOptionsManClass();
        CErrorLog::releaseErrorLogClass();
        SystemLog::stopCapture();
        SessionFixture::TearDown();
    }

    // The records of the event log, without the format mark and the empty tail.
    std::vector<std::string> events() {
        std::vector<std::string> records;
        for (const auto& line : CErrorLog::GetErrorList().value_or(std::vector<std::string>{}))
            if (!line.empty() && line.find('|') != std::string::npos)
                records.push_back(line);
        return records;
    }
    void setOptions(const std::string& email, bool whenError, bool whenFinish) {
        OptionsMan::setReportEmail(email);
        OptionsMan::SetReportWhenError(whenError);
        OptionsMan::SetReportWhenFinish(whenFinish);
        OptionsMan::SaveOptions();
        OptionsMan::clearnOptionsManClass(); // the report must load them itself
    }
    std::vector<std::string> mails() { // in no particular order
        std::vector<std::string> messages;
        std::string outbox = MailSender::outboxFolder(api().customerID());
        for (const auto& name : FileSystem::listDirectory(outbox).value_or(std::vector<std::string>{}))
            if (name.ends_with(".eml"))
                messages.push_back(readFile(outbox + "/" + name));
        return messages;
    }
    // Whether one of the messages has the subject of key, up to the task's name.
    static bool has(const std::vector<std::string>& messages, const char* key) {
        std::string subject = LoadString::GetValueByKey(key);
        subject = "Subject: " + subject.substr(0, subject.find('{'));
        return std::any_of(messages.begin(), messages.end(), [&](const std::string& message) {
            return message.find(subject) != std::string::npos;
        });
    }

    std::shared_ptr<CBackupTask> task_;
};

TEST_F(BackupTaskReport, ResultCodesBecomeErrorTextAndEvents) {
    task_->getBackupTaskResult(0, "\\Backup\\a", "/a");
    task_->getBackupTaskResult(6, "\\Backup\\a", "/a");
    EXPECT_FALSE(task_->bHaveErr || task_->strErrLog);
    EXPECT_TRUE(events().empty());

    task_->getBackupTaskResult(73, "\\Backup\\big", "/big");
    std::string limit = LoadString::Format("OrvoSubItemLimitation", "\\Backup\\big", 1000);
    EXPECT_EQ(task_->strErrLog, limit);
    EXPECT_TRUE(task_->bHaveErr);
    std::vector<std::string> records = events();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].substr(0, records[0].rfind('|', records[0].rfind('|') - 1)),
              records[1].substr(0, records[1].rfind('|', records[1].rfind('|') - 1)));
    EXPECT_TRUE(records[0].starts_with("Docs|42|"));

    std::string codeText = TransferApiUtil::stringWithReturnCode(3);
    task_->getBackupTaskResult(3, "\\Backup\\a.txt", "/home/a.txt");
    EXPECT_EQ(task_->strErrLog,
              LoadString::Format("StrLogUploadFail", "/home/a.txt", "\\Backup\\a.txt", codeText));
    task_->getBackupTaskResult(3, "\\Backup\\a.txt", "");
    EXPECT_EQ(task_->strErrLog, codeText);
    task_->getBackupTaskResult(3, "", "/home/a.txt");
    EXPECT_EQ(task_->strErrLog, codeText);
    EXPECT_EQ(events().size(), 5u);
}

TEST_F(BackupTaskReport, MailsFollowTheAccountOptions) {
    // No address: nothing, whatever else is on.
    task_->bHaveErr = true;
    setOptions("", true, true);
    task_->sendLogByEmail(3);
    EXPECT_TRUE(mails().empty());

    // A success with only error reports on: nothing.
    task_->bHaveErr = false;
    setOptions("me@example.com", true, false);
    task_->sendLogByEmail(0);
    EXPECT_TRUE(mails().empty());

    // A cancelled run with an error: the failure mail only.
    task_->bHaveErr = true;
    task_->strErrLog = "disk gone";
    setOptions("me@example.com", true, true);
    task_->sendLogByEmail(6);
    std::vector<std::string> sent = mails();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_TRUE(has(sent, "FailEmailTitle"));

    // A failed run with both on: the failure and the completion mail.
    task_->nScanTotalFiles = 12;
    task_->uiMaxVersion = 4;
    task_->leftOutPaths = {"/home/u/a-name-too-long"};
    task_->runStartDate = Date::now().addingTimeInterval(-65);
    task_->sendLogByEmail(3);
    sent = mails();
    EXPECT_EQ(sent.size(), 3u);
    EXPECT_TRUE(has(sent, "SuccessEmailTitle"));
    // Both carry the run's figures: one left-out file and the error make two problems.
    int withFigures = 0;
    for (const auto& message : sent) {
        if (message.find("New or changed files found: 12 (") == std::string::npos)
            continue;
        ++withFigures;
        EXPECT_NE(message.find("up to 3\r\nProblems: 2\r\nDuration: 0:01:0"), std::string::npos) << message;
    }
    EXPECT_EQ(withFigures, 2);
}

TEST_F(BackupTaskReport, TaskListUploadAndReload) {
    task_->localDirList = {"/home/u/Docs", "/home/u/Pictures"};
    task_->uiMaxVersion = 4;
    ASSERT_TRUE(task_->uploadTaskList("Add", "Docs"));
    task_->description = "changed";
    ASSERT_TRUE(task_->uploadTaskList("Edit", "Docs"));

    CManageTaskList list;
    std::string reply = list.getBackupTasks("Docs", "true");
    EXPECT_NE(reply.find("changed"), std::string::npos);

    auto loaded = std::make_shared<CBackupTask>();
    loaded->name = "Docs";
    EXPECT_EQ(loaded->loadFilePathListFromDB(), 0);
    EXPECT_EQ(loaded->localDirList, task_->localDirList);
    EXPECT_TRUE(loaded->sourceInfoArray.empty());

    auto migrated = std::make_shared<CBackupTask>();
    migrated->name = "Docs";
    migrated->bMigrateTask = true;
    EXPECT_EQ(migrated->loadFilePathListFromDB(), 0);
    ASSERT_EQ(migrated->sourceInfoArray.size(), 2u);
    EXPECT_EQ(migrated->sourceInfoArray[1].at("PathID"), "/home/u/Pictures");
    EXPECT_EQ(migrated->localDirList.size(), 2u);

    task_->name = "Unknown"; // not on the list
    EXPECT_FALSE(task_->uploadTaskList("Edit", "Unknown"));
    api().Logoff();
    EXPECT_NE(loaded->loadFilePathListFromDB(), 0);
    EXPECT_EQ(loaded->localDirList.size(), 2u);
    EXPECT_TRUE(SystemLog::capturedContains("Error: get task list."));
}

} // namespace

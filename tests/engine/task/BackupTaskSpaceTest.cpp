#include <gtest/gtest.h>

#include "common/EngineSession.h"
#include "platform/framework/AccountBalance.h"
#include "platform/framework/Functions.h"
#include "platform/framework/LoadString.h"

using namespace cirrovault;

namespace {

constexpr double T = 1'600'000'000.0;
constexpr int64_t MB = 1 << 20;

std::string size(int64_t bytes) {
    return Functions::FormatSizeToString(bytes);
}

class BackupTaskSpace : public test::EngineSession {
protected:
    void SetUp() override {
        EngineSession::SetUp();
        task_ = std::make_shared<CBackupTask>();
        task_->name = "Docs";
        useServerFolder("\\Backup");
    }
    // The task backs up home/src into serverFolder, which holds "\src".
    void useServerFolder(const std::string& serverFolder) {
        task_->serverPath = serverFolder;
        task_->localDirList = {home_.file("src")};
        for (size_t at = 1; at <= serverFolder.size(); ++at) {
            if (at == serverFolder.size() || serverFolder[at] == '\\')
                local_->makeFolder(serverFolder.substr(0, at), "", "");
        }
        local_->makeFolder(serverFolder + "\\src", "", "");
        tree().RefreshSvrPath("\\");
        store_->resetCounts();
    }
    std::string local(const std::string& name, const std::string& content, double time) {
        return makeFile("src/" + name, content, time);
    }
    void stored(const std::string& name, const std::string& content, double time) {
        putCopy(task_->serverPath + "\\src\\" + name, content, time);
    }
    bool decide(const std::string& name, const std::string& content, double time) {
        return task_->CalculateBackupFileSize(local(name, content, time));
    }
    int64_t freeSpace() {
        AccountBalance balance;
        EXPECT_EQ(api().GetAccountBalance(balance), ResultCode::Success);
        return balance.maxSpace - balance.fileSpaceUsed - balance.msgSpaceUsed;
    }
    void setFree(int64_t bytes) {
        AccountBalance balance;
        ASSERT_EQ(api().GetAccountBalance(balance), ResultCode::Success);
        ASSERT_EQ(local_->setQuota(balance.fileSpaceUsed + balance.msgSpaceUsed + bytes),
                  ResultCode::Success);
    }
    // The prompts shown since the last call, as "style|text".
    std::vector<std::string> prompts() {
        std::vector<std::string> shown;
        for (const auto& prompt : dialogs_->shown())
            shown.push_back(std::to_string(prompt.style) + "|" + prompt.text);
        dialogs_->clearShown();
        return shown;
    }

    std::shared_ptr<CBackupTask> task_;
};

TEST(BackupTaskChangeRule, ExactStoresTrustTheTimeCoarseOnesForgiveEqualSizesOnly) {
    auto current = [](uint64_t size, double at, uint64_t storedSize, double precision,
                      int64_t window, bool encrypted = false) {
        return CBackupTask::storedCopyIsCurrent(size, Date(at), storedSize, Date(T), encrypted,
                                                precision, window);
    };
    for (double precision : {1e-9, 1.0}) {
        SCOPED_TRACE(precision);
        EXPECT_TRUE(current(4, T, 4, precision, 2));
        // Grown from 30 to 40 bytes and saved within the window: always sent.
        EXPECT_FALSE(current(40, T + 2, 30, precision, 2));
        EXPECT_FALSE(current(40, T, 30, precision, 2));
        // A clock moved by one hour is no change with the same size only.
        EXPECT_TRUE(current(4, T + 3600, 4, precision, 2));
        EXPECT_FALSE(current(5, T + 3600, 4, precision, 2));
        // An encrypted copy is 128 bytes longer.
        EXPECT_TRUE(current(4, T, 132, precision, 2, true));
        EXPECT_FALSE(current(4, T, 4, precision, 2, true));
    }
    // A store keeping exact times: any difference is a change.
    EXPECT_FALSE(current(4, T + 0.001, 4, 1e-9, 2));
    EXPECT_FALSE(current(4, T + 3601, 4, 1e-9, 2));
    // A store keeping seconds: the window over equal sizes, whole seconds only.
    EXPECT_TRUE(current(4, T + 2.9, 4, 1, 2));
    EXPECT_FALSE(current(4, T + 3, 4, 1, 2));
    EXPECT_TRUE(current(4, T - 3602.5, 4, 1, 2));
    EXPECT_FALSE(current(4, T + 3603, 4, 1, 2));
    EXPECT_TRUE(current(4, T + 0.9, 4, 1, 0));
    EXPECT_FALSE(current(4, T + 1, 4, 1, 0));
}

TEST_F(BackupTaskSpace, ChangeDecisionOnTheLocalStoreResumedUploadsAndEncryptedExtra) {
    for (const char* name : {"same.txt", "near.txt", "hour.txt", "grown.txt"})
        stored(name, "1234", T);
    stored("resume.txt.part", "12345", T); // an interrupted upload
    stored("a%3Ab.txt", "1", T);            // "a:b.txt" under the name the service takes

    EXPECT_FALSE(decide("same.txt", "abcd", T));
    EXPECT_FALSE(decide("hour.txt", "abcd", T + 3600));
    EXPECT_EQ(std::pair(task_->uiNeedSpace, task_->scanFileArray.size()), std::pair(0ul, 0ul));

    EXPECT_TRUE(decide("near.txt", "abcd", T + 1.5)); // the local store keeps exact times
    EXPECT_TRUE(decide("grown.txt", "abcdefghij", T + 2)); // charged in full
    EXPECT_EQ(task_->uiNeedSpace, 4u + 10u);

    EXPECT_TRUE(decide("new.txt", "abcdefg", T));
    EXPECT_EQ(task_->uiNeedSpace, 21u);

    // Resumed upload: listed, but it adds nothing and lowers the remote size.
    task_->uiRemoteSize = 3;
    EXPECT_TRUE(decide("resume.txt", "abcdefgh", T));
    EXPECT_EQ(std::pair(task_->uiNeedSpace, task_->uiRemoteSize), std::pair(21ul, 0ul));
    task_->uiRemoteSize = 100;
    task_->getPartSizeFromSever(home_.file("src/resume.txt"));
    EXPECT_EQ(task_->uiRemoteSize, 95u);

    EXPECT_EQ(task_->fileTotalSize, 4u + 10u + 7u + 8u);
    std::vector<std::string> expected;
    for (const char* name : {"near.txt", "grown.txt", "new.txt", "resume.txt"})
        expected.push_back(home_.file(std::string("src/") + name));
    EXPECT_EQ(task_->scanFileArray, expected);

    task_->filterExt = {"*.log"};
    EXPECT_FALSE(decide("x.log", "l", T));
    EXPECT_FALSE(decide("a:b.txt", "l", T)); // found under its escaped name
    // Too long once encoded: left out, and named for the event log and the summary.
    const std::string colons(90, ':');
    EXPECT_FALSE(decide(colons, "l", T));
    EXPECT_EQ(task_->leftOutPaths, std::vector<std::string>{home_.file("src/" + colons)});
    EXPECT_FALSE(task_->CalculateBackupFileSize(home_.file("src/missing.txt")));

    EXPECT_EQ(store_->listCount("\\Backup\\src"), 1);

    // An encrypted task charges new files 128 bytes more.
    useServerFolder("\\" + LoadString::GetValueByKey("EncryptionFolder", "") + "\\Backup");
    task_->uiNeedSpace = task_->fileTotalSize = 0;
    stored("moved.txt", std::string(4 + 128, 'e'), T);
    stored("changed.txt", std::string(4 + 128, 'e'), T);
    EXPECT_FALSE(decide("moved.txt", "abcd", T + 3600));
    EXPECT_TRUE(decide("changed.txt", "abcd", T + 60));
    EXPECT_EQ(task_->uiNeedSpace, 4u);
    EXPECT_TRUE(decide("new.txt", "abcdef", T));
    EXPECT_EQ(task_->uiNeedSpace, 4u + 6u + 128u);
    EXPECT_EQ(task_->fileTotalSize, 10u);
}

TEST_F(BackupTaskSpace, AccountSpaceCheck) {
    setFree(5 * MB);
    EXPECT_TRUE(task_->CheckAccountSpace(1));
    EXPECT_TRUE(prompts().empty());

    // Exactly enough is not enough. Declining with some space left ends quietly.
    EXPECT_FALSE(task_->CheckAccountSpace(5 * MB));
    EXPECT_EQ(std::pair(task_->iBackupRet, task_->bHaveErr.load()), std::pair(0ul, false));
    EXPECT_EQ(prompts(), std::vector<std::string>{
                             "8|" + LoadString::Format("IDS_NEEDMOREBUYSPACE", "Docs", 5, 5)});

    // Needed MB rounded up, free MB rounded down.
    setFree(MB + MB / 2);
    EXPECT_FALSE(task_->CheckAccountSpace(MB + MB / 2 + MB / 4));
    EXPECT_EQ(prompts(), std::vector<std::string>{
                             "8|" + LoadString::Format("IDS_NEEDMOREBUYSPACE", "Docs", 2, 1)});

    // Nothing left: the other prompt, and declining refuses the run.
    setFree(0);
    EXPECT_FALSE(task_->CheckAccountSpace(1));
    EXPECT_EQ(std::pair(task_->iBackupRet, task_->bHaveErr.load()),
              std::pair(static_cast<uint64_t>(ResultCode::SpaceLimit), true));
    EXPECT_EQ(prompts(), std::vector<std::string>{"6|" + LoadString::Format("NeedMoreBuySpace", 0)});
    EXPECT_FALSE(task_->CheckAccountSpace(0));
    EXPECT_EQ(SystemLog::capturedCount("needspace is zero."), 1u);
    prompts();

    // Ordering space and retrying reads fresh figures and asks again.
    dialogs_->queueAnswer(MessageboxAnswer::OrderSpace);
    dialogs_->queueAnswer(MessageboxAnswer::Retry);
    EXPECT_FALSE(task_->CheckAccountSpace(1));
    EXPECT_EQ(prompts().size(), 3u);
    EXPECT_EQ(task_->iBackupRet, static_cast<uint64_t>(ResultCode::SpaceLimit));

    // Account figures that cannot be read end the check with the service's code.
    api().Logoff();
    EXPECT_FALSE(task_->CheckAccountSpace(1));
    EXPECT_NE(task_->iBackupRet, 0u);
}

TEST_F(BackupTaskSpace, FreeSpaceBeforeARun) {
    int64_t code = -1;
    setFree(5 * MB);
    EXPECT_TRUE(CBackupTask::CheckFreeSpaceFromServer(MB, task_.get(), &code));
    EXPECT_EQ(code, 0);
    EXPECT_TRUE(prompts().empty());

    // Short of space: going on anyway is the user's choice (the default answer).
    setFree(MB);
    EXPECT_TRUE(CBackupTask::CheckFreeSpaceFromServer(2 * MB, task_.get(), &code));
    EXPECT_EQ(prompts(), std::vector<std::string>{
                             "8|" + LoadString::Format("IDS_STRNEEDMORESPACE", "Docs", size(2 * MB),
                                                       size(MB), size(2 * MB))});

    // Ordering space, then not trying again, stops the run.
    setFree(0);
    dialogs_->queueAnswer(MessageboxAnswer::OrderSpace);
    EXPECT_FALSE(CBackupTask::CheckFreeSpaceFromServer(MB, task_.get(), &code));
    EXPECT_EQ(prompts(),
              (std::vector<std::string>{"8|" + LoadString::Format("SubUserHaveBuyStorageSpace",
                                                                  "Docs", size(MB), size(0)),
                                        "3|" + LoadString::GetValueByKey("IDS_REBACKAGAIN", "")}));

    // More used than allowed: the free size shows negative.
    ASSERT_EQ(local_->setQuota(LocalStore::DiskQuota), ResultCode::Success);
    stored("big.bin", std::string(2000, 'b'), T);
    ASSERT_EQ(local_->setQuota(1000), ResultCode::Success);
    ASSERT_LT(freeSpace(), 0);
    EXPECT_TRUE(CBackupTask::CheckFreeSpaceFromServer(10, task_.get(), &code));
    EXPECT_NE(prompts().at(0).find("-" + size(-freeSpace())), std::string::npos);
}

} // namespace

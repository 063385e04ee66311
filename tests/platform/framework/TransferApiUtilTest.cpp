#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <tuple>

#include <gtest/gtest.h>

#include "platform/framework/CurlHandleController.h"
#include "platform/framework/NimboSetting.h"
#include "platform/framework/PasswordMan.h"
#include "platform/framework/SessionFixture.h"
#include "platform/framework/TrueProgressCallback.h"
#include "platform/os/Semaphore.h"
#include "platform/os/SystemLog.h"

namespace cirrovault {
namespace {

class TransferApiUtilTest : public test::SessionFixture {
protected:
    int64_t download(const std::string& server, const std::string& local,
                     const std::string& phrase = "") {
        TransferInfo info;
        info.setSvrFile(server);
        info.setLocFile(local);
        info.setPassPhrase(phrase);
        return api().DownloadFile(info);
    }
    // The stored bytes as they lie in the local store's folder.
    std::string storedPath(const std::string& relative) {
        return local_->accountFilesFolder() + "/" + relative;
    }
    std::string pattern(size_t size) {
        std::string s(size, '\0');
        for (size_t i = 0; i < size; ++i)
            s[i] = static_cast<char>((i * 7 + i / 1000) & 0xff);
        return s;
    }
};

TEST_F(TransferApiUtilTest, FoldersCarryDescriptionsAndRenamesKeepThem) {
    ASSERT_EQ(api().AddFolder("\\Tasks", "All my tasks", "Tasks", false), ResultCode::Success);
    EXPECT_EQ(api().AddFolder("\\Tasks", "", "", false), ResultCode::AlreadyExists);
    EXPECT_EQ(api().AddFolder("\\No\\Parent", "", "", false), ResultCode::NotFound);
    EXPECT_EQ(api().AddFolder("\\Tasks\\..\\..\\x", "", "", false), ResultCode::BadPath);
    PathInfo info;
    ASSERT_TRUE(tree().FindPath("\\Tasks", info, false));
    EXPECT_EQ(std::tie(info.description, info.caption), std::make_tuple("All my tasks", "Tasks"));

    // Empty texts keep what the folder had; given ones replace it.
    ASSERT_EQ(api().EditFolder("\\Tasks", "Jobs", "", ""), ResultCode::Success);
    ASSERT_TRUE(tree().FindPath("\\Jobs", info, false));
    EXPECT_EQ(info.description, "All my tasks");
    EXPECT_FALSE(tree().FindPath("\\Tasks", info, false));
    ASSERT_EQ(api().EditFolder("\\Jobs", "", "Renamed", ""), ResultCode::Success);
    ASSERT_TRUE(tree().FindPath("\\Jobs", info, false));
    EXPECT_EQ(std::tie(info.description, info.caption), std::make_tuple("Renamed", "Tasks"));
    EXPECT_EQ(api().EditFolder("\\Jobs", "a\\b", "", ""), ResultCode::BadPath);
    EXPECT_EQ(api().EditFolder("\\Missing", "x", "", ""), ResultCode::NotFound);

    ASSERT_EQ(upload("\\Jobs\\a.txt", makeFile("a.txt", "a")), ResultCode::Success);
    ASSERT_EQ(upload("\\Jobs\\b.txt", makeFile("b.txt", "b")), ResultCode::Success);
    EXPECT_EQ(api().EditFile("\\Jobs\\a.txt", "", "", ""), ResultCode::EmptyName);
    EXPECT_EQ(api().EditFile("\\Jobs\\a.txt", "b.txt", "", ""), ResultCode::AlreadyExists);
    EXPECT_EQ(api().EditFile("\\Jobs\\a.txt", "a.txt", "", ""), ResultCode::Success);
    ASSERT_EQ(api().EditFile("\\Jobs\\a.txt", "a0.txt", "", ""), ResultCode::Success);
    EXPECT_EQ(readFile(storedPath("Jobs/a0.txt")), "a");
}

TEST_F(TransferApiUtilTest, UploadAndDownloadKeepBytesAndModificationTimes) {
    folders({"\\Docs"});
    std::string content = pattern(3 * 1024 * 1024 + 11);
    std::string local = makeFile("src/report.pdf", content, 1'600'000'123.5);
    TrueProgressCallback progress;
    UploadFileInfo result;
    ASSERT_EQ(upload("\\Docs\\report.pdf", local, &result, "", &progress), ResultCode::Success);
    EXPECT_EQ(std::make_tuple(result.storedSize, result.uploadedBytes, result.resumedBytes,
                              progress.thisSize(), progress.sentSize()),
              std::make_tuple(content.size(), content.size(), 0u, content.size(), content.size()));

    PathInfo info;
    ASSERT_TRUE(tree().FindPath("\\Docs\\report.pdf", info, false));
    EXPECT_EQ(info.iSize, content.size());
    EXPECT_EQ(info.modifyTime, Date(1'600'000'123.5));

    std::string restored = home_.file("restore/deep/report.pdf"); // folders made as needed
    ASSERT_EQ(download("\\Docs\\report.pdf", restored), ResultCode::Success);
    EXPECT_TRUE(readFile(restored) == content);
    EXPECT_EQ(FileSystem::status(restored)->modifyTime, Date(1'600'000'123.5));

    EXPECT_EQ(download("\\Docs\\none.pdf", home_.file("none.pdf")), ResultCode::NotFound);
    EXPECT_FALSE(FileSystem::exists(home_.file("none.pdf")));
    EXPECT_EQ(download("\\Docs", home_.file("folder")), ResultCode::BadRequest);
    EXPECT_EQ(upload("\\Docs\\x", home_.file("no-such-file")), ResultCode::LocalFileError);
    EXPECT_EQ(upload("\\Docs\\..\\..\\x", local), ResultCode::BadPath);
    EXPECT_EQ(upload("\\Missing\\x", local), ResultCode::NotFound);
}

TEST_F(TransferApiUtilTest, InterruptedUploadsResumeFromTheirPart) {
    folders({"\\Up", "\\Encrypted"});
    std::string content = pattern(2 * 1024 * 1024 + 5);
    std::string local = makeFile("big.bin", content);

    for (std::string server : {"\\Up\\big.bin", "\\Encrypted\\big.bin"}) {
        SCOPED_TRACE(server);
        std::string phrase = server.find("Encrypted") != std::string::npos ? "pass" : "";
        uint64_t stored = content.size() + (phrase.empty() ? 0 : 128);
        store_->dropConnectionInNextPut(1024 * 1024 + 100);
        EXPECT_EQ(upload(server, local, nullptr, phrase), ResultCode::Failure);
        EXPECT_EQ(found({server}), "-"); // only the ".part" exists

        TrueProgressCallback progress;
        UploadFileInfo second;
        ASSERT_EQ(upload(server, local, &second, phrase, &progress), ResultCode::Success);
        EXPECT_GT(second.resumedBytes, 0u);
        EXPECT_EQ(second.resumedBytes + second.uploadedBytes, stored);
        EXPECT_LT(second.uploadedBytes, stored);
        EXPECT_EQ(progress.tempSize(), second.resumedBytes);
        ASSERT_EQ(download(server, home_.file("back.bin"), phrase), ResultCode::Success);
        EXPECT_TRUE(readFile(home_.file("back.bin")) == content);
    }

    // A local file changed since the interruption starts over.
    store_->dropConnectionInNextPut(1000);
    EXPECT_EQ(upload("\\Up\\again.bin", local), ResultCode::Failure);
    std::string changed = makeFile("big.bin", pattern(2 * 1024 * 1024 + 5).replace(10, 1, "!"));
    UploadFileInfo third;
    ASSERT_EQ(upload("\\Up\\again.bin", changed, &third), ResultCode::Success);
    EXPECT_EQ(third.resumedBytes, 0u);
    EXPECT_EQ(third.uploadedBytes, content.size());
}

TEST_F(TransferApiUtilTest, EncryptedFilesRoundTripAndRefuseWrongPhraseOrDamage) {
    folders({"\\Encrypted"});
    std::string content = pattern(100'000);
    std::string local = makeFile("secret.txt", content, 1'600'000'000.5);
    UploadFileInfo result;
    ASSERT_EQ(upload("\\Encrypted\\secret.txt", local, &result, "my phrase"), ResultCode::Success);
    EXPECT_EQ(result.storedSize, content.size() + 128);
    PathInfo info;
    ASSERT_TRUE(tree().FindPath("\\Encrypted\\secret.txt", info, false));
    EXPECT_EQ(info.iSize, content.size() + 128);
    std::string raw = readFile(storedPath("Encrypted/secret.txt"));
    ASSERT_EQ(raw.size(), content.size() + 128);
    EXPECT_EQ(raw.find(content.substr(1000, 100)), std::string::npos);

    std::string target = home_.file("out/secret.txt");
    ASSERT_EQ(download("\\Encrypted\\secret.txt", target, "my phrase"), ResultCode::Success);
    EXPECT_TRUE(readFile(target) == content);
    EXPECT_EQ(FileSystem::status(target)->modifyTime, Date(1'600'000'000.5));

    std::string refused = home_.file("out/refused.txt");
    EXPECT_EQ(download("\\Encrypted\\secret.txt", refused, "not my phrase"),
              ResultCode::WrongPassPhrase);
    EXPECT_EQ(download("\\Encrypted\\secret.txt", refused, ""), ResultCode::WrongPassPhrase);
    EXPECT_EQ(upload("\\Encrypted\\other.txt", local, nullptr, ""), ResultCode::WrongPassPhrase);
    raw[5000] ^= 0x20;
    ASSERT_TRUE(FileSystem::writeFileAtomically(storedPath("Encrypted/secret.txt"), raw));
    EXPECT_EQ(download("\\Encrypted\\secret.txt", refused, "my phrase"), ResultCode::DamagedFile);
    EXPECT_FALSE(FileSystem::exists(refused));
    EXPECT_EQ(FileSystem::listDirectory(home_.file("out"))->size(), 1u); // no leftovers

    // A run passes no phrase: the one kept on this computer for the task folder is used.
    folders({"\\Encrypted\\Docs"});
    ASSERT_TRUE(PasswordMan().SetPassword("\\Encrypted\\Docs", true, "kept phrase"));
    ASSERT_EQ(upload("\\Encrypted\\Docs\\a.txt", local, nullptr, ""), ResultCode::Success);
    std::string kept = home_.file("out/kept.txt");
    ASSERT_EQ(download("\\Encrypted\\Docs\\a.txt", kept, ""), ResultCode::Success);
    EXPECT_TRUE(readFile(kept) == content);
    EXPECT_EQ(download("\\Encrypted\\Docs\\a.txt", refused, "my phrase"),
              ResultCode::WrongPassPhrase);
}

// A version moved into the history stays bound to the name it was encrypted under.
TEST_F(TransferApiUtilTest, EncryptedFilesSwappedOrPutBackAreRefusedAndVersionsStillOpen) {
    folders({"\\Encrypted", "\\Encrypted\\Task", "\\Encrypted\\Task\\Docs", "\\Encrypted\\History",
             "\\Encrypted\\History\\Task", "\\Encrypted\\History\\Task\\Docs"});
    const std::string a = "\\Encrypted\\Task\\Docs\\a.txt", b = "\\Encrypted\\Task\\Docs\\b.txt";
    ASSERT_EQ(upload(a, makeFile("a.txt", "first a", 1'600'000'000), nullptr, "p"), ResultCode::Success);
    ASSERT_EQ(upload(b, makeFile("b.txt", "only b", 1'600'000'000), nullptr, "p"), ResultCode::Success);
    const std::string firstA = readFile(storedPath("Encrypted/Task/Docs/a.txt"));
    const std::string target = home_.file("out/restored.txt");

    // Stored bytes changed behind the service's back, listed with the given time.
    auto plant = [&](const std::string& name, const std::string& bytes, double time) {
        ASSERT_TRUE(FileSystem::writeFileAtomically(storedPath("Encrypted/Task/Docs/" + name), bytes));
        ASSERT_TRUE(FileSystem::setModifyTime(storedPath("Encrypted/Task/Docs/" + name), Date(time)));
    };
    SystemLog::startCapture();
    plant("b.txt", firstA, 1'600'000'000);
    EXPECT_EQ(download(b, target, "p"), ResultCode::DamagedFile);
    EXPECT_TRUE(SystemLog::capturedContains("\"" + b + "\" holds an intact encrypted file made for another name"));
    EXPECT_FALSE(FileSystem::exists(target));

    // The second backup of a moves the first into the history, where it still opens.
    ASSERT_EQ(api().MovePath(a, "\\Encrypted\\History\\Task\\Docs\\a3.txt"), ResultCode::Success);
    ASSERT_EQ(upload(a, makeFile("a.txt", "second a", 1'700'000'000), nullptr, "p"), ResultCode::Success);
    ASSERT_EQ(download("\\Encrypted\\History\\Task\\Docs\\a3.txt", target, "p"), ResultCode::Success);
    EXPECT_EQ(readFile(target), "first a");

    // The first a put back under a, listed with the second's time.
    plant("a.txt", firstA, 1'700'000'000);
    std::string other = home_.file("out/other.txt");
    EXPECT_EQ(download(a, other, "p"), ResultCode::DamagedFile);
    EXPECT_TRUE(SystemLog::capturedContains("\"" + a + "\" holds an intact encrypted file"));
    EXPECT_FALSE(FileSystem::exists(other));
    SystemLog::stopCapture();
}

TEST_F(TransferApiUtilTest, CopyMoveAndDeleteCountTheirItems) {
    folders({"\\Task", "\\History", "\\Copies"});
    for (const char* name : {"a", "b", "c"})
        ASSERT_EQ(upload(std::string("\\Task\\") + name, makeFile(name, name)), ResultCode::Success);

    OperationProgress progress;
    ASSERT_EQ(api().CopyPaths({"\\Task\\a", "\\Task\\b"}, "\\Copies", &progress, false),
              ResultCode::Success);
    EXPECT_EQ(progress.totalItems(), 2);
    EXPECT_EQ(progress.doneItems(), 2);
    ASSERT_EQ(api().CopyPaths({"\\Task\\a"}, "\\History", nullptr, true), ResultCode::Success);
    EXPECT_EQ(found({"\\Task\\a", "\\History\\a", "\\Copies\\a"}), "-++");
    EXPECT_EQ(readFile(storedPath("History/a")), "a");
    // A name already there is not overwritten; the other paths still go.
    EXPECT_EQ(api().CopyPaths({"\\Copies\\a", "\\Task\\c"}, "\\History", nullptr, true),
              ResultCode::AlreadyExists);
    OperationProgress cancelled;
    cancelled.setCancelled(true);
    EXPECT_EQ(api().DeletePaths({"\\Copies\\a"}, &cancelled, false), ResultCode::Cancelled);
    EXPECT_EQ(found({"\\History\\c", "\\Copies\\a"}), "++");

    // One item to another folder under another name; never over a name already there.
    ASSERT_EQ(api().MovePath("\\Copies\\b", "\\History\\b0"), ResultCode::Success);
    EXPECT_EQ(found({"\\Copies\\b", "\\History\\b0"}), "-+");
    EXPECT_EQ(api().MovePath("\\History\\b0", "\\History\\c"), ResultCode::AlreadyExists);
    EXPECT_EQ(api().MovePath("\\History\\b0", "\\..\\b0"), ResultCode::BadPath);
    ASSERT_EQ(api().MovePath("\\History\\b0", "\\Copies\\b"), ResultCode::Success);

    // A path already gone counts as deleted; a bad one fails without stopping the rest.
    OperationProgress deleting;
    EXPECT_EQ(api().DeletePaths({"\\Copies\\a", "\\Copies\\gone", "\\..", "\\Copies\\b"},
                                &deleting, false),
              ResultCode::BadPath);
    EXPECT_EQ(deleting.doneItems(), 4);
    EXPECT_EQ(found({"\\Copies\\a", "\\Copies\\b"}), "--");
    EXPECT_FALSE(FileSystem::exists(storedPath("Copies/b")));

    // To the trash: kept there, under a fresh name when the trash has one already.
    ASSERT_EQ(api().EditFile("\\Task\\b", "a", "", ""), ResultCode::Success);
    ASSERT_EQ(api().DeletePaths({"\\History\\a", "\\Task\\a"}, nullptr, true),
              ResultCode::Success);
    ASSERT_EQ(api().DeletePaths({"\\History"}, nullptr, false), ResultCode::Success);
    EXPECT_EQ(found({"\\Trash\\a", "\\Trash\\a (2)", "\\History\\c"}), "++-");
}

TEST_F(TransferApiUtilTest, AccountBalanceFollowsUploadsAndTheQuota) {
    AccountBalance before;
    ASSERT_EQ(api().GetAccountBalance(before), ResultCode::Success);
    EXPECT_GT(before.maxSpace, 0);
    folders({"\\B"});
    ASSERT_EQ(upload("\\B\\f", makeFile("f", std::string(1000, 'f'))), ResultCode::Success);
    AccountBalance after;
    ASSERT_EQ(api().GetAccountBalance(after), ResultCode::Success);
    EXPECT_EQ(after.fileSpaceUsed, before.fileSpaceUsed + 1000);
    EXPECT_EQ(after.msgSpaceUsed, 0);

    ASSERT_EQ(local_->setQuota(after.fileSpaceUsed + 500), ResultCode::Success);
    EXPECT_EQ(upload("\\B\\g", makeFile("g", std::string(1000, 'g'))), ResultCode::SpaceLimit);
    ASSERT_EQ(api().GetAccountBalance(after), ResultCode::Success);
    EXPECT_EQ(after.maxSpace - after.fileSpaceUsed - after.msgSpaceUsed, 500);
}

TEST_F(TransferApiUtilTest, SessionKeepsThePasswordOutOfTheLog) {
    SystemLog::startCapture();
    EXPECT_EQ(api().Logon("alice", "not it"), ResultCode::WrongPassword);
    EXPECT_EQ(api().sessionID(), "");
    EXPECT_EQ(api().customerID(), "");
    ASSERT_EQ(api().Logon("alice", "secret"), ResultCode::Success);
    EXPECT_NE(api().sessionID(), "");
    EXPECT_NE(api().customerID(), "");
    EXPECT_EQ(api().userName(), "alice");
    EXPECT_EQ(api().passWord(), "secret");
    EXPECT_TRUE(api().CheckNetwork());
    EXPECT_EQ(api().GetHttpHost(), "");
    api().Logoff();
    EXPECT_EQ(api().sessionID(), "");
    EXPECT_EQ(api().passWord(), "");
    AccountBalance balance;
    EXPECT_EQ(api().GetAccountBalance(balance), ResultCode::NotLoggedOn);
    EXPECT_FALSE(SystemLog::capturedContains("not it"));
    EXPECT_FALSE(SystemLog::capturedContains("secret"));
    SystemLog::stopCapture();

    EXPECT_EQ(api().OpenService("gopher://nowhere"), ResultCode::NoService);
    EXPECT_EQ(api().backend(), store_); // a refused URL leaves the service as it was

    // Without a service chosen, logon opens the default one in the user's data folder.
    TransferApiUtil::releaseTransferApiUtil();
    EXPECT_EQ(TransferApiUtil::defaultServiceURL(), "file://" + home_.dataHome() + "/cirrovault/store");
    ASSERT_EQ(api().Logon("bob", "pw"), ResultCode::Success);
    EXPECT_TRUE(FileSystem::isDirectory(home_.dataHome() + "/cirrovault/store"));
    ASSERT_TRUE(NimboSetting::SetSettingValueForKey("ServiceURL", "file://" + home_.file("other")));
    EXPECT_EQ(TransferApiUtil::defaultServiceURL(), "file://" + home_.file("other"));
}

TEST(TransferApiUtilTextTest, EveryResultCodeHasItsOwnText) {
    std::set<std::string> texts;
    for (int64_t code : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 24, 73}) {
        std::string text = TransferApiUtil::stringWithReturnCode(code);
        EXPECT_FALSE(text.empty()) << code;
        texts.insert(text);
    }
    EXPECT_EQ(texts.size(), 21u);
    EXPECT_NE(TransferApiUtil::stringWithReturnCode(999).find("999"), std::string::npos);
}

class TransferApiUtilThreadTest : public TransferApiUtilTest {};

// Holds the uploading thread at its first report of stored bytes until told to go on.
class PauseAtFirstReport : public TrueProgressDelegate {
public:
    explicit PauseAtFirstReport(const TrueProgressCallback& progress) : progress_(progress) {}
    void progressChanged() override {
        if (progress_.sentSize() > 0 && first_.exchange(false)) {
            reached.signal();
            proceed.wait();
        }
    }
    Semaphore reached;
    Semaphore proceed;

private:
    const TrueProgressCallback& progress_;
    std::atomic<bool> first_{true};
};

TEST_F(TransferApiUtilThreadTest, CancelConnectionStopsALargeUploadAndTheNextResumes) {
    folders({"\\Big"});
    std::string local = home_.file("large.bin");
    std::ofstream(local).close();
    std::filesystem::resize_file(local, 64ull * 1024 * 1024);

    TrueProgressCallback progress;
    PauseAtFirstReport pause(progress);
    progress.SetDelegate(&pause);
    int64_t code = -1;
    UploadFileInfo first;
    std::thread worker([&] { code = upload("\\Big\\large.bin", local, &first, "", &progress); });
    pause.reached.wait();
    EXPECT_TRUE(CurlHandleController::shared().CancelConnection(worker.get_id()));
    pause.proceed.signal();
    worker.join();
    EXPECT_EQ(code, ResultCode::Cancelled);
    EXPECT_LT(progress.sentSize(), 64ull * 1024 * 1024);
    EXPECT_FALSE(CurlHandleController::shared().CancelConnection(worker.get_id()));

    // Cancel through the progress object works the same way.
    TrueProgressCallback cancelled;
    cancelled.setBClickedCancel(true);
    EXPECT_EQ(upload("\\Big\\other.bin", local, nullptr, "", &cancelled), ResultCode::Cancelled);

    UploadFileInfo second;
    ASSERT_EQ(upload("\\Big\\large.bin", local, &second), ResultCode::Success);
    EXPECT_GT(second.resumedBytes, 0u);
    EXPECT_EQ(second.resumedBytes + second.uploadedBytes, 64ull * 1024 * 1024);
}

} // namespace
} // namespace cirrovault

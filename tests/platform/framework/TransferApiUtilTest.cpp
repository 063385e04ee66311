#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/framework/CurlHandleController.h"
#include "platform/framework/NimboSetting.h"
#include "platform/framework/PasswordMan.h"
#include "platform/framework/SessionFixture.h"
#include "platform/framework/TrueProgressCallback.h"
#include "platform/os/Semaphore.h"
#include "platform/os/SystemLog.h"

using namespace cirrovault;

namespace {
using namespace ResultCode;
using Codes = std::vector<int64_t>; // the codes of calls made in order, one comparison

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
    static std::string pattern(size_t size) {
        std::string s(size, '\0');
        for (size_t i = 0; i < size; ++i)
            s[i] = static_cast<char>((i * 7 + i / 1000) & 0xff);
        return s;
    }
    // "description|caption" of a folder the cache finds, "-" for none.
    std::string texts(const std::string& path) {
        PathInfo info;
        return tree().FindPath(path, info, false) ? info.description + "|" + info.caption : "-";
    }
};

TEST_F(TransferApiUtilTest, UploadsKeepBytesAndTimesAndInterruptedOnesResumeFromTheirPart) {
    folders({"\\Up", "\\Encrypted"});
    std::string content = pattern(2 * 1024 * 1024 + 5);
    std::string local = makeFile("big.bin", content, 1'600'000'123.5);
    for (std::string phrase : {"", "pass"}) {
        std::string server = phrase.empty() ? "\\Up\\big.bin" : "\\Encrypted\\big.bin";
        SCOPED_TRACE(server);
        uint64_t stored = content.size() + (phrase.empty() ? 0 : 128);
        store_->dropConnectionInNextPut(1024 * 1024 + 100);
        EXPECT_EQ(upload(server, local, nullptr, phrase), Failure);
        EXPECT_EQ(found({server}), "-"); // only the ".part" exists

        TrueProgressCallback progress;
        UploadFileInfo second;
        ASSERT_EQ(upload(server, local, &second, phrase, &progress), Success);
        EXPECT_TRUE(second.resumedBytes > 0 && second.uploadedBytes < stored);
        EXPECT_EQ(std::make_tuple(second.resumedBytes + second.uploadedBytes, progress.tempSize()),
                  std::make_tuple(stored, second.resumedBytes));
        std::string back = home_.file("restore/deep/" + phrase + "back.bin"); // folders made
        ASSERT_EQ(download(server, back, phrase), Success);
        EXPECT_TRUE(readFile(back) == content &&
                    FileSystem::status(back)->modifyTime == Date(1'600'000'123.5));
    }

    // A local file changed since the interruption starts over.
    store_->dropConnectionInNextPut(1000);
    EXPECT_EQ(upload("\\Up\\again.bin", local), Failure);
    TrueProgressCallback progress;
    UploadFileInfo third;
    ASSERT_EQ(upload("\\Up\\again.bin", makeFile("big.bin", content.replace(10, 1, "!")), &third,
                     "", &progress),
              Success);
    EXPECT_EQ(std::make_tuple(third.storedSize, third.uploadedBytes, third.resumedBytes,
                              progress.thisSize(), progress.sentSize()),
              std::make_tuple(content.size(), content.size(), 0u, content.size(), content.size()));

    EXPECT_EQ((Codes{download("\\Up\\none.bin", home_.file("none.bin")),
                     download("\\Up", home_.file("folder")),
                     upload("\\Up\\x", home_.file("no-such-file")),
                     upload("\\Up\\..\\..\\x", local), upload("\\Missing\\x", local)}),
              (Codes{NotFound, BadRequest, LocalFileError, BadPath, NotFound}));
    EXPECT_FALSE(FileSystem::exists(home_.file("none.bin")));
}

// A version moved into the history stays bound to the name it was encrypted under.
TEST_F(TransferApiUtilTest, EncryptedFilesRefuseAWrongPhraseOrNameAndTakeTheOneKeptForTheTask) {
    for (std::string top : {"\\Encrypted", "\\Encrypted\\History"})
        folders({top, top + "\\Task", top + "\\Task\\Docs"});
    const std::string a = "\\Encrypted\\Task\\Docs\\a.txt", b = "\\Encrypted\\Task\\Docs\\b.txt";
    const std::string target = home_.file("out/x.txt"), content = pattern(100'000);
    UploadFileInfo result;
    ASSERT_EQ(upload(a, makeFile("a.txt", content, 1'600'000'000), &result, "p"), Success);
    const std::string firstA = readFile(storedPath("Encrypted/Task/Docs/a.txt"));
    PathInfo info;
    ASSERT_TRUE(tree().FindPath(a, info, false));
    EXPECT_EQ(std::make_tuple(result.storedSize, info.iSize, firstA.size()),
              std::make_tuple(content.size() + 128, content.size() + 128, content.size() + 128));
    const std::string localB = makeFile("b.txt", "only b", 1'600'000'000);
    EXPECT_EQ((Codes{download(a, target, "not p"), download(a, target, ""),
                     upload(b, localB, nullptr, "")}),
              (Codes{WrongPassPhrase, WrongPassPhrase, WrongPassPhrase}));
    EXPECT_FALSE(FileSystem::exists(target));

    // A run passes no phrase: the one kept on this computer for the task folder is used.
    ASSERT_TRUE(PasswordMan().SetPassword("\\Encrypted\\Task", true, "p"));
    ASSERT_EQ(upload(b, localB, nullptr, ""), Success);
    ASSERT_EQ(download(b, home_.file("out/b.txt"), ""), Success);
    EXPECT_EQ(readFile(home_.file("out/b.txt")), "only b");
    EXPECT_EQ(download(b, target, "not p"), WrongPassPhrase);

    // Stored bytes changed behind the service's back, listed with the given time.
    auto plant = [&](const std::string& name, const std::string& bytes, double time) {
        std::string path = storedPath("Encrypted/Task/Docs/" + name);
        ASSERT_TRUE(FileSystem::writeFileAtomically(path, bytes));
        ASSERT_TRUE(FileSystem::setModifyTime(path, Date(time)));
    };
    SystemLog::startCapture();
    plant("b.txt", firstA, 1'600'000'000);
    EXPECT_EQ(download(b, target, "p"), DamagedFile);
    EXPECT_TRUE(SystemLog::capturedContains(
        "\"" + b + "\" holds an intact encrypted file made for another name"));

    // The second backup of a moves the first into the history, where it still opens.
    ASSERT_EQ(api().MovePath(a, "\\Encrypted\\History\\Task\\Docs\\a3.txt"), Success);
    ASSERT_EQ(upload(a, makeFile("a.txt", "second a", 1'700'000'000), nullptr, "p"), Success);
    ASSERT_EQ(download("\\Encrypted\\History\\Task\\Docs\\a3.txt", home_.file("version"), "p"),
              Success);
    EXPECT_TRUE(readFile(home_.file("version")) == content);

    // The first a put back under a, listed with the second's time.
    plant("a.txt", firstA, 1'700'000'000);
    EXPECT_EQ(download(a, target, "p"), DamagedFile);
    EXPECT_TRUE(SystemLog::capturedContains("\"" + a + "\" holds an intact encrypted file"));
    EXPECT_FALSE(FileSystem::exists(target));
    SystemLog::stopCapture();
}

TEST_F(TransferApiUtilTest, FoldersKeepTheirTextsAndCopyMoveAndDeleteCountTheirItems) {
    auto add = [](const std::string& path) { return api().AddFolder(path, "", "", false); };
    EXPECT_EQ((Codes{api().AddFolder("\\Tasks", "All my tasks", "Tasks", false), add("\\Tasks"),
                     add("\\No\\Parent"), add("\\Tasks\\..\\..\\x")}),
              (Codes{Success, AlreadyExists, NotFound, BadPath}));
    EXPECT_EQ(texts("\\Tasks"), "All my tasks|Tasks");
    // Empty texts keep what the folder had; given ones replace it.
    ASSERT_EQ(api().EditFolder("\\Tasks", "Task", "", ""), Success);
    EXPECT_EQ(texts("\\Task") + texts("\\Tasks"), "All my tasks|Tasks-");
    EXPECT_EQ((Codes{api().EditFolder("\\Task", "", "Renamed", ""),
                     api().EditFolder("\\Task", "a\\b", "", ""),
                     api().EditFolder("\\Missing", "x", "", "")}),
              (Codes{Success, BadPath, NotFound}));
    EXPECT_EQ(texts("\\Task"), "Renamed|Tasks");

    folders({"\\History", "\\Copies"});
    for (const char* name : {"a", "b", "c"})
        ASSERT_EQ(upload(std::string("\\Task\\") + name, makeFile(name, name)), Success);
    const std::string c = "\\Task\\c";
    EXPECT_EQ((Codes{api().EditFile(c, "", "", ""), api().EditFile(c, "b", "", ""),
                     api().EditFile(c, "c", "", ""), api().EditFile(c, "c0", "", "")}),
              (Codes{EmptyName, AlreadyExists, Success, Success}));
    EXPECT_EQ(readFile(storedPath("Task/c0")), "c");

    OperationProgress progress;
    ASSERT_EQ(api().CopyPaths({"\\Task\\a", "\\Task\\b"}, "\\Copies", &progress, false), Success);
    EXPECT_EQ(std::make_tuple(progress.totalItems(), progress.doneItems()), std::make_tuple(2, 2));
    ASSERT_EQ(api().CopyPaths({"\\Task\\a"}, "\\History", nullptr, true), Success);
    EXPECT_EQ(found({"\\Task\\a", "\\History\\a", "\\Copies\\a"}), "-++");
    EXPECT_EQ(readFile(storedPath("History/a")), "a");
    // A name already there is not overwritten; the other paths still go.
    OperationProgress cancelled;
    cancelled.setCancelled(true);
    EXPECT_EQ((Codes{api().CopyPaths({"\\Copies\\a", "\\Task\\c0"}, "\\History", nullptr, true),
                     api().DeletePaths({"\\Copies\\a"}, &cancelled, false)}),
              (Codes{AlreadyExists, Cancelled}));
    EXPECT_EQ(found({"\\History\\c0", "\\Copies\\a"}), "++");

    // One item to another folder under another name; never over a name already there.
    ASSERT_EQ(api().MovePath("\\Copies\\b", "\\History\\b0"), Success);
    EXPECT_EQ(found({"\\Copies\\b", "\\History\\b0"}), "-+");
    auto move = [](const std::string& to) { return api().MovePath("\\History\\b0", to); };
    EXPECT_EQ((Codes{move("\\History\\c0"), move("\\..\\b0"), move("\\Copies\\b")}),
              (Codes{AlreadyExists, BadPath, Success}));

    // A path already gone counts as deleted; a bad one fails without stopping the rest.
    OperationProgress deleting;
    EXPECT_EQ(api().DeletePaths({"\\Copies\\a", "\\Copies\\gone", "\\..", "\\Copies\\b"}, &deleting,
                                false),
              BadPath);
    EXPECT_EQ(deleting.doneItems(), 4);
    EXPECT_EQ(found({"\\Copies\\a", "\\Copies\\b"}), "--");
    EXPECT_FALSE(FileSystem::exists(storedPath("Copies/b")));

    // To the trash: kept there, under a fresh name when the trash has one already.
    EXPECT_EQ((Codes{api().EditFile("\\Task\\b", "a", "", ""),
                     api().DeletePaths({"\\History\\a", "\\Task\\a"}, nullptr, true),
                     api().DeletePaths({"\\History"}, nullptr, false)}),
              (Codes{Success, Success, Success}));
    EXPECT_EQ(found({"\\Trash\\a", "\\Trash\\a (2)", "\\History\\c0"}), "++-");
}

TEST_F(TransferApiUtilTest, SessionKeepsThePasswordOutOfTheLog) {
    using Session = std::tuple<std::string, std::string, std::string>; // id, customer, password
    auto session = [] { return Session{api().sessionID(), api().customerID(), api().passWord()}; };
    SystemLog::startCapture();
    EXPECT_EQ(api().Logon("alice", "not it"), WrongPassword);
    EXPECT_EQ(session(), (Session{"", "", ""}));
    ASSERT_EQ(api().Logon("alice", "secret"), Success);
    EXPECT_TRUE(!api().sessionID().empty() && !api().customerID().empty() && api().CheckNetwork());
    EXPECT_EQ(api().userName() + " " + api().passWord() + api().GetHttpHost(), "alice secret");
    api().Logoff();
    EXPECT_EQ(session(), (Session{"", "", ""}));
    AccountBalance balance;
    EXPECT_EQ(api().GetAccountBalance(balance), NotLoggedOn);
    SystemLog::stopCapture();
    EXPECT_FALSE(SystemLog::capturedContains("not it") || SystemLog::capturedContains("secret"));

    EXPECT_EQ(api().OpenService("gopher://nowhere"), NoService);
    EXPECT_EQ(api().backend(), store_); // a refused URL leaves the service as it was

    // Without a service chosen, logon opens the default one in the user's data folder.
    TransferApiUtil::releaseTransferApiUtil();
    EXPECT_EQ(TransferApiUtil::defaultServiceURL(), "file://" + home_.dataHome() + "/cirrovault/store");
    ASSERT_EQ(api().Logon("bob", "pw"), Success);
    EXPECT_TRUE(FileSystem::isDirectory(home_.dataHome() + "/cirrovault/store"));
    ASSERT_TRUE(NimboSetting::SetSettingValueForKey("ServiceURL", "file://" + home_.file("other")));
    EXPECT_EQ(TransferApiUtil::defaultServiceURL(), "file://" + home_.file("other"));
}

TEST(TransferApiUtilTextTest, EveryResultCodeHasItsOwnText) {
    std::set<std::string> texts{""};
    for (int64_t code : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 24, 73})
        texts.insert(TransferApiUtil::stringWithReturnCode(code));
    EXPECT_EQ(texts.size(), 22u); // 21 texts, none of them empty
    EXPECT_NE(TransferApiUtil::stringWithReturnCode(999).find("999"), std::string::npos);
}

// Holds the uploading thread at its first report of stored bytes until told to go on.
struct PauseAtFirstReport : TrueProgressDelegate {
    void progressChanged() override {
        if (progress.sentSize() > 0 && first.exchange(false)) {
            reached.signal();
            proceed.wait();
        }
    }
    TrueProgressCallback progress;
    Semaphore reached, proceed;
    std::atomic<bool> first{true};
};

class TransferApiUtilThreadTest : public TransferApiUtilTest {};

TEST_F(TransferApiUtilThreadTest, CancelConnectionStopsALargeUploadAndTheNextResumes) {
    folders({"\\Big"});
    std::string local = makeFile("large.bin", "");
    ASSERT_EQ(::truncate(local.c_str(), 64ll << 20), 0);

    PauseAtFirstReport pause;
    pause.progress.SetDelegate(&pause);
    int64_t code = -1;
    CurlHandleController& controller = CurlHandleController::shared();
    auto mine = controller.beginTransfer(); // another thread's transfer is not reached
    std::thread worker(
        [&] { code = upload("\\Big\\large.bin", local, nullptr, "", &pause.progress); });
    pause.reached.wait();
    EXPECT_TRUE(controller.CancelConnection(worker.get_id()) && !*mine);
    pause.proceed.signal();
    worker.join();
    EXPECT_EQ(code, Cancelled);
    EXPECT_LT(pause.progress.sentSize(), 64ull << 20);
    // Ended transfers and threads without one are not reached.
    EXPECT_FALSE(controller.CancelConnection(worker.get_id()));
    controller.endTransfer();
    EXPECT_FALSE(controller.CancelConnection(std::this_thread::get_id()));

    // Cancel through the progress object works the same way.
    TrueProgressCallback cancelled;
    cancelled.setBClickedCancel(true);
    EXPECT_EQ(upload("\\Big\\other.bin", local, nullptr, "", &cancelled), Cancelled);

    UploadFileInfo second;
    ASSERT_EQ(upload("\\Big\\large.bin", local, &second), Success);
    EXPECT_TRUE(second.resumedBytes > 0 && second.resumedBytes + second.uploadedBytes == 64ull
                                                                                             << 20);
}

} // namespace

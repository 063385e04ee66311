#include <algorithm>
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
    void put(const std::string& server, const std::string& content) {
        ASSERT_EQ(upload(server, makeFile("local/" + std::to_string(++files_), content)), Success)
            << server;
    }
    // What the cache says of each folder equals what the store says now.
    void expectInStep(std::initializer_list<std::string> paths) {
        for (const auto& path : paths) {
            SCOPED_TRACE(path);
            PathInfo cached;
            StoreItem fresh;
            ASSERT_TRUE(tree().FindPath(path, cached, false));
            ASSERT_EQ(local_->stat(path, fresh), Success);
            EXPECT_EQ(std::tie(cached.iSize, cached.iFiles, cached.bFolder),
                      std::make_tuple(fresh.size, fresh.isFolder ? fresh.fileCount : 0, fresh.isFolder));
        }
    }
    int files_ = 0;
};
class PathTreeTest : public TransferApiUtilTest {};

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

TEST_F(PathTreeTest, EachFolderIsListedOnceThenAnsweredFromMemory) {
    folders({"\\A", "\\A\\B"});
    for (auto [path, content] :
         {std::pair{"\\A\\x.txt", "xx"}, {"\\A\\y.txt", "yyy"}, {"\\A\\B\\z.txt", "zzzz"}})
        put(path, content);
    ASSERT_EQ(tree().RefreshSvrPath("\\"), Success);
    store_->resetCounts();

    PathInfo info;
    ASSERT_TRUE(tree().FindPath("\\A\\x.txt", info, false));
    EXPECT_EQ(std::tie(info.name, info.path, info.iSize, info.bFolder, info.modifyTime),
              std::make_tuple("x.txt", "\\A\\x.txt", 2u, false, Date(1'600'000'000.25)));
    ASSERT_TRUE(tree().FindPath("A\\y.txt", info, false)); // the leading "\" is optional
    EXPECT_EQ(info.iSize, 3u);
    ASSERT_TRUE(tree().FindPath("\\A", info, false));
    EXPECT_EQ(std::tie(info.bFolder, info.iSize, info.iFiles), std::make_tuple(true, 9u, 3));
    EXPECT_EQ(found({"\\A\\none", "\\A\\B\\z.txt"}), "-+");
    // The root was read by the refresh.
    EXPECT_EQ(std::make_tuple(store_->listCount("\\A"), store_->listCount("\\A\\B"),
                              store_->totalLists()),
              std::make_tuple(1, 1, 2));

    std::vector<PathInfo> all;
    ASSERT_EQ(tree().GetSubList("\\A", all, false, true), Success);
    ASSERT_EQ(all.size(), 4u);
    auto folder = std::find_if(all.begin(), all.end(), [](auto& i) { return i.path == "\\A\\B"; });
    ASSERT_LT(folder + 1, all.end()); // a folder comes right before what it holds
    EXPECT_EQ(folder[1].path, "\\A\\B\\z.txt");
    EXPECT_EQ(store_->totalLists(), 2);

    std::vector<PathInfo> top;
    ASSERT_EQ(tree().GetSubList("\\A", top, false, false), Success);
    EXPECT_EQ(top.size(), 3u);
    EXPECT_NE(tree().GetSubList("\\A\\missing", top, false, false), Success);
    EXPECT_TRUE(top.empty());
    EXPECT_EQ(tree().GetSubList("\\A\\..\\etc", top, false, false), BadPath);
    EXPECT_EQ(found({"\\A\\..\\A"}), "-");
}

TEST_F(PathTreeTest, ChangesThroughTheSessionKeepFolderFiguresInStepListedOrNot) {
    folders({"\\T", "\\T\\Docs", "\\H", "\\H\\Old"});
    put("\\H\\Old\\old0.txt", "oooo");
    ASSERT_EQ(tree().RefreshSvrPath("\\"), Success);
    PathInfo info;
    ASSERT_EQ(found({"\\T\\Docs\\a.txt", "\\H\\x", "\\T\\Docs", "\\T", "\\H\\Old"}), "--+++");
    store_->resetCounts(); // \H held, \H\Old not

    put("\\T\\Docs\\a.txt", std::string(10, 'a'));
    put("\\T\\Docs\\b.txt", std::string(5, 'b'));
    expectInStep({"\\T", "\\T\\Docs"});
    // The versioning moves, each into the history folder whose listing is not held: rename in
    // place, then move (the replaced size goes along).
    for (int n = 1; n <= 2; ++n) {
        put("\\T\\Docs\\a.txt", std::string(20 + n, 'a')); // replaced: size changes, count not
        expectInStep({"\\T"});
        std::string version = "a" + std::to_string(n) + ".txt";
        ASSERT_EQ(api().EditFile("\\T\\Docs\\a.txt", version, "", ""), Success);
        EXPECT_EQ(found({"\\T\\Docs\\a.txt", "\\T\\Docs\\" + version}), "-+");
        ASSERT_EQ(api().CopyPaths({"\\T\\Docs\\" + version}, "\\H\\Old", nullptr, true), Success);
        EXPECT_EQ(found({"\\T\\Docs\\" + version}), "-");
        expectInStep({"\\T", "\\H", "\\H\\Old"});
    }

    ASSERT_EQ(api().CopyPaths({"\\T\\Docs"}, "\\H", nullptr, false), Success);
    expectInStep({"\\H"});
    ASSERT_EQ(api().DeletePaths({"\\T\\Docs\\b.txt"}, nullptr, false), Success);
    expectInStep({"\\T", "\\T\\Docs"});
    ASSERT_EQ(api().EditFolder("\\T\\Docs", "Papers", "", ""), Success);
    EXPECT_EQ(found({"\\T\\Docs"}), "-");
    expectInStep({"\\T\\Papers"});
    // All of that was followed without listing a folder again.
    EXPECT_EQ(store_->totalLists(), 0);
    ASSERT_EQ(api().DeletePaths({"\\H\\Old\\a1.txt"}, nullptr, false), Success);
    expectInStep({"\\H", "\\H\\Old"});
    ASSERT_TRUE(tree().FindPath("\\H\\Old\\a2.txt", info, false));
    EXPECT_EQ(info.iSize, 22u);
}

TEST_F(PathTreeTest, MissingFoldersAreAskedOnceUntilSomethingIsStoredThere) {
    folders({"\\T"});
    ASSERT_EQ(found({"\\T"}), "+");
    store_->resetCounts();
    // A first backup asks for every new file of a folder that is not there yet.
    for (char i : std::string("01234"))
        EXPECT_EQ(found({"\\T\\New\\f" + std::string(1, i), "\\T\\New\\Deep\\g" + std::string(1, i),
                         "\\Gone\\Deep\\h" + std::string(1, i)}),
                  "---");
    // \T\New was asked for once; the root's listing already tells \Gone is absent.
    EXPECT_EQ(std::make_pair(store_->totalLists(), store_->listCount("\\T\\New")),
              std::make_pair(1, 1));

    // Made through the session: what lies below is asked for again, and found.
    folders({"\\T\\New"});
    put("\\T\\New\\f1", "one");
    EXPECT_EQ(found({"\\T\\New\\f1", "\\T\\New\\Deep\\g1"}), "+-");
    expectInStep({"\\T\\New"});

    // Made behind the cache's back (another computer): seen after a refresh of the folder or
    // above it, which forgets what lies below.
    for (const char* path : {"\\Gone", "\\Gone\\Deep", "\\T\\New\\Deep"})
        ASSERT_EQ(local_->makeFolder(path, "", ""), Success);
    EXPECT_EQ(found({"\\Gone\\Deep", "\\T\\New\\Deep"}), "--");
    EXPECT_EQ((Codes{tree().RefreshSvrPath("\\T\\gone"), tree().RefreshSvrPath("\\T\\..\\.."),
                     tree().RefreshSvrPath("\\Gone\\Deep"), tree().RefreshSvrPath("\\T")}),
              (Codes{NotFound, BadPath, Success, Success}));
    expectInStep({"\\Gone\\Deep", "\\T\\New\\Deep"});

    // Logged off, nothing is answered from what was cached before.
    api().Logoff();
    EXPECT_EQ(found({"\\T"}), "-");
    EXPECT_EQ(tree().RefreshSvrPath("\\"), NotLoggedOn);
}

class PathTreeConcurrencyTest : public PathTreeTest {};

TEST_F(PathTreeConcurrencyTest, FoldersLookedUpFromManyThreadsAndListedAheadAreListedOnce) {
    folders({"\\P"});
    std::vector<std::string> ahead;
    for (int i = 0; i < 12; ++i) {
        ahead.push_back("\\P\\D" + std::to_string(i));
        folders({ahead.back()});
        put(ahead.back() + "\\old", "x");
    }
    tree().RefreshSvrPath("\\P"); // forgets the listings below
    store_->resetCounts();
    tree().prefetchFolders(ahead);
    std::vector<std::thread> threads;
    std::string marks[8];
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            for (const auto& at : ahead)
                marks[t] += found({at + "\\old"});
        });
    for (auto& thread : threads)
        thread.join();
    for (const std::string& seen : marks)
        EXPECT_EQ(seen, std::string(ahead.size(), '+'));
    for (const auto& at : ahead)
        EXPECT_EQ(store_->listCount(at), 1) << at;
}

// Holds the listing of one folder, once read, until released: a change can land meanwhile.
class GatedStore : public test::CountingStore {
public:
    using CountingStore::CountingStore;
    int64_t list(const std::string& folder, std::vector<StoreItem>& items) override {
        int64_t code = CountingStore::list(folder, items);
        if (folder == gated) {
            entered.signal();
            opened.wait();
            opened.signal(); // open for any later listing too
        }
        return code;
    }
    std::string gated;
    Semaphore entered, opened;
};

TEST_F(PathTreeConcurrencyTest, AListingAheadThatRacedAChangeIsNotKept) {
    folders({"\\Q"});
    put("\\Q\\old", "x");
    auto gated = std::make_shared<GatedStore>(local_);
    gated->gated = "\\Q";
    api().SetBackend(gated);
    ASSERT_EQ(api().Logon("alice", "secret"), Success);

    tree().prefetchFolders({"\\Q"});
    gated->entered.wait(); // the listing ahead has begun, without the new file
    put("\\Q\\new", "abc");
    gated->opened.signal();
    EXPECT_EQ(found({"\\Q\\new", "\\Q\\old"}), "++");
}


} // namespace

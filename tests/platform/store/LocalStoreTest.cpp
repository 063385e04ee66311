#include <algorithm>
#include <cstdio>
#include <future>
#include <map>
#include <regex>
#include <thread>

#include <unistd.h>

#include <gtest/gtest.h>

#include "common/FileModes.h"
#include "common/TempHome.h"
#include "platform/os/FileSystem.h"
#include "platform/os/SystemLog.h"
#include "platform/store/StoreTestSupport.h"
#include "platform/store/local/LocalFolderTotals.h"
#include "platform/store/local/LocalStore.h"

namespace cirrovault::test {

namespace R = ResultCode;

namespace {

class LocalStoreTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(store.logon("alice", "secret", session), R::Success); }
    std::string filesFolder() const {
        return home.file("store/accounts/" + session.customerID + "/files");
    }
    // Another store object on the same folder, logged on as the same user.
    auto another() { return loggedOn(std::make_unique<LocalStore>(home.file("store"))); }

    TempHome home;
    LocalStore store{home.file("store")};
    StoreSession session;
};

using Names = std::vector<std::string>;
Names names(StoreBackend& store, const std::string& folder) {
    Names out;
    for (const auto& item : listed(store, folder))
        out.push_back(item.name);
    return out;
}

} // namespace

// Unfinished uploads and links planted in the account are neither listed nor counted; links are
// never followed, and what they point at stays as it was.
TEST_F(LocalStoreTest, OnlyUnfinishedUploadsAreHiddenAndLinksPlantedInTheAccountAreNotFollowed) {
    ASSERT_EQ(store.makeFolder("\\T", "", ""), R::Success);
    const std::string data = patternBytes(3 * 1024 * 1024);
    MemorySource source(data, "t");
    StopObserver stop(1);
    ASSERT_EQ(store.put("\\T\\x", source, Date(), &stop), R::Cancelled);
    EXPECT_TRUE(FileSystem::isRegularFile(filesFolder() + "/T/x.part"));
    const std::string outside = home.file("outside");
    ASSERT_TRUE(FileSystem::createDirectories(outside));
    ASSERT_TRUE(FileSystem::writeFileAtomically(outside + "/secret.txt", "secret"));
    ASSERT_EQ(::symlink(outside.c_str(), (filesFolder() + "/T/door").c_str()), 0);
    ASSERT_EQ(::symlink((outside + "/secret.txt").c_str(), (filesFolder() + "/T/secret.txt").c_str()), 0);

    std::vector<StoreItem> items;
    MemorySink sink;
    EXPECT_EQ((std::vector<int64_t>{
                  statCode(store, "\\T\\door"), statCode(store, "\\T\\door\\secret.txt"),
                  store.list("\\T\\door", items), store.get("\\T\\door\\secret.txt", sink, nullptr),
                  store.get("\\T\\secret.txt", sink, nullptr), putText(store, "\\T\\door\\new.txt", "evil"),
                  putText(store, "\\T\\secret.txt", "evil"), store.makeFolder("\\T\\door\\sub", "", ""),
                  store.remove("\\T\\door\\secret.txt"), store.copy("\\T\\door", "\\T\\stolen"),
                  store.move("\\T\\door\\secret.txt", "\\T\\stolen")}),
              std::vector<int64_t>(11, R::BadPath));
    EXPECT_TRUE(sink.data.empty());
    EXPECT_EQ(names(store, "\\"), Names{"T"});

    // A user's own file ending in ".part" is ordinary, and keeps "y" from having a part.
    ASSERT_EQ(putText(store, "\\T\\y.part", "mine"), R::Success);
    EXPECT_EQ(names(store, "\\T"), Names{"y.part"});
    EXPECT_EQ(figuresOf(store, "\\T"), "4/1");
    EXPECT_EQ(store.remove("\\T\\x.part"), R::NotFound);
    EXPECT_EQ(putText(store, "\\T\\y", "why"), R::AlreadyExists);
    EXPECT_EQ(storedContent(store, "\\T\\y.part"), "mine");

    // Copies of the folder leave the unfinished upload and the links behind; moves take the
    // upload along, and removing the folder leaves what the links point at alone.
    ASSERT_EQ(store.copy("\\T", "\\G"), R::Success);
    EXPECT_EQ(FileSystem::listDirectory(filesFolder() + "/G").value_or(Names{}), Names{"y.part"});
    ASSERT_EQ(store.move("\\T", "\\H"), R::Success);
    EXPECT_EQ(names(store, "\\H"), Names{"y.part"});
    MemorySource resumed(data, "t");
    StopObserver observer;
    ASSERT_EQ(store.put("\\H\\x", resumed, Date(), &observer), R::Success);
    EXPECT_GT(observer.resumed, 0u);
    EXPECT_EQ(storedContent(store, "\\H\\x"), data);
    EXPECT_EQ(store.remove("\\H"), R::Success);
    EXPECT_EQ(FileSystem::readFile(outside + "/secret.txt").value_or(""), "secret");
    EXPECT_EQ(FileSystem::listDirectory(outside).value_or(Names{}), Names{"secret.txt"});
}

TEST_F(LocalStoreTest, QuotaDefaultsToTheDiskAndCanBeSet) {
    // The disk is shared with others; its free space only roughly stays still.
    EXPECT_NEAR(static_cast<double>(quotaOf(store).maxSpace),
                static_cast<double>(FileSystem::availableSpace(filesFolder()).value_or(0)), 512e6);

    ASSERT_EQ(store.setQuota(100), R::Success);
    EXPECT_EQ(quotaOf(*another()).maxSpace, 100); // the account's, not the object's
    EXPECT_EQ(store.setQuota(-7), R::BadRequest);
    ASSERT_EQ(store.setQuota(LocalStore::DiskQuota), R::Success);
    EXPECT_GT(quotaOf(store).maxSpace, 100);
    store.logoff();
    EXPECT_EQ(store.setQuota(5), R::NotLoggedOn);
}

// Names that sort right beside "a\" are not inside it: a listing holds its own records only.
TEST_F(LocalStoreTest, ListingsHoldTheirOwnRecordsOnlyAndMovesCarryThem) {
    for (std::string folder : {"\\a", "\\a b", "\\a]", "\\a[", "\\aB", "\\a\\b", "\\a\\b\\c", "\\a\\d"})
        ASSERT_EQ(store.makeFolder(folder, folder.substr(1), ""), R::Success) << folder;
    const std::map<std::string, uint32_t> files = {
        {"\\a\\x", 0100640},       {"\\a\\z", 0100600},      {"\\a\\b\\y", 0100700},
        {"\\a\\b\\c\\w", 0100604}, {"\\a\\d\\v", 0100666},   {"\\a b\\u", 0100644},
        {"\\a]\\t", 0100640},      {"\\a\\e", 0100751}};
    for (const auto& [path, mode] : files)
        ASSERT_EQ(putText(store, path, "bytes of " + path, Date(), mode), R::Success) << path;
    using Records = std::map<std::string, std::string>; // a folder's description, a file's mode
    auto records = [&](const std::string& folder) {
        Records out;
        for (const auto& item : listed(store, folder)) {
            char mode[16];
            std::snprintf(mode, sizeof mode, "%o", item.mode);
            out[item.name] = item.isFolder ? item.description : mode;
        }
        return out;
    };
    EXPECT_EQ(records("\\"), (Records{{"a", "a"}, {"a b", "a b"}, {"a]", "a]"}, {"a[", "a["}, {"aB", "aB"}}));
    const Records a = {{"b", "a\\b"}, {"d", "a\\d"}, {"e", "100751"}, {"x", "100640"}, {"z", "100600"}};
    EXPECT_EQ(records("\\a"), a);
    EXPECT_EQ(records("\\a\\b"), (Records{{"c", "a\\b\\c"}, {"y", "100700"}}));
    EXPECT_EQ(records("\\a\\b\\c"), (Records{{"w", "100604"}}));
    EXPECT_EQ(records("\\a b"), (Records{{"u", "100644"}}));

    ASSERT_EQ(store.move("\\a", "\\Z"), R::Success);
    EXPECT_EQ(records("\\"), (Records{{"Z", "a"}, {"a b", "a b"}, {"a]", "a]"}, {"a[", "a["}, {"aB", "aB"}}));
    EXPECT_EQ(records("\\Z"), a);
    EXPECT_EQ(records("\\Z\\b"), (Records{{"c", "a\\b\\c"}, {"y", "100700"}}));
}

// Nothing of the store is open to others, whatever the umask (set before the logon).
class LocalStoreModesTest : public LocalStoreTest {
    UmaskScope open_{0};
};

TEST_F(LocalStoreModesTest, BackupIsPlainFilesUnderTheAccountFolderNothingOpenToOthers) {
    EXPECT_TRUE(std::regex_match(session.customerID, std::regex("c[0-9a-f]{12}")));
    EXPECT_TRUE(std::regex_match(session.sessionID, std::regex("[0-9a-f]{32}")));
    EXPECT_EQ(store.accountFilesFolder(), filesFolder());
    ASSERT_EQ(store.makeFolder("\\Docs", "d", "D"), R::Success);
    ASSERT_EQ(putText(store, "\\Docs\\a b.txt", "plain bytes", Date(1'650'000'000.25)), R::Success);
    ASSERT_EQ(store.copy("\\Docs", "\\Copy"), R::Success);
    EXPECT_EQ(store.flush(), R::Success);
    const std::string local = filesFolder() + "/Docs/a b.txt";
    EXPECT_EQ(FileSystem::readFile(local).value_or(""), "plain bytes");
    EXPECT_NEAR(FileSystem::linkStatus(local).value_or(FileStatus{}).modifyTime.timeIntervalSince1970(),
                1'650'000'000.25, 1e-6);
    EXPECT_EQ(FileSystem::listDirectory(filesFolder() + "/Docs").value_or(Names{}), Names{"a b.txt"});
    ASSERT_TRUE(FileSystem::isRegularFile(filesFolder() + "/Copy/a b.txt"));
    EXPECT_EQ(openToOthers(home.file("store")), Names{});

    // As an earlier version left it: closed again at the next logon.
    ASSERT_TRUE(FileSystem::setPermissions(home.file("store"), 0755));
    ASSERT_TRUE(FileSystem::setPermissions(home.file("store/store.db"), 0644));
    another();
    EXPECT_EQ(permissionsOf(home.file("store")), 0700u);
    EXPECT_EQ(permissionsOf(home.file("store/store.db")), 0600u);
}

// A lost database never makes an account with files a new one; repair brings it back.
TEST(LocalStoreDamageTest, UnreadableOrLostRecordsAreRefusedAndRepairedFromTheAccountFolders) {
    TempHome home;
    const std::string folder = home.file("store");
    StoreSession alice, bob, session;
    {
        LocalStore store(folder);
        ASSERT_EQ(store.logon("alice", "pw", alice), R::Success);
        ASSERT_EQ(store.writeTaskList("<tasks of alice/>", ""), R::Success);
        ASSERT_EQ(putText(store, "\\a.txt", "kept"), R::Success);
        ASSERT_EQ(store.logon("bob", "pw2", bob), R::Success);
    }
    // Bob's account was kept by an older version, which made no copy of its owner.
    ASSERT_TRUE(FileSystem::removeItem(folder + "/accounts/" + bob.customerID + "/account"));
    ASSERT_TRUE(FileSystem::writeFileAtomically(folder + "/store.db", std::string(8192, 'x')));
    SystemLog::startCapture();
    {
        LocalStore store(folder);
        EXPECT_EQ(store.logon("alice", "pw", session), R::StoreDamaged);
        EXPECT_TRUE(SystemLog::capturedContains("is no database"));
        EXPECT_EQ(statCode(store, "\\"), R::NotLoggedOn);
    }
    SystemLog::stopCapture();
    ASSERT_TRUE(FileSystem::writeFileAtomically(folder + "/store.db", ""));
    {
        LocalStore store(folder);
        EXPECT_EQ(store.logon("alice", "pw", session), R::StoreDamaged);
        EXPECT_EQ(store.logon("carol", "pw", session), R::StoreDamaged);
    }
    EXPECT_EQ(FileSystem::readFile(folder + "/store.db").value_or("<none>"), "");

    std::vector<std::string> report;
    int asked = 0;
    auto password = [&]() -> std::optional<std::string> { ++asked; return "new pw"; };
    EXPECT_EQ(LocalStore::repair(folder, "bob", password, report), R::Success);
    EXPECT_EQ(asked, 1);
    LocalStore store(folder);
    ASSERT_EQ(store.logon("alice", "pw", session), R::Success);
    EXPECT_EQ(session.customerID, alice.customerID);
    std::string document, version;
    ASSERT_EQ(store.readTaskList(document, version), R::Success);
    EXPECT_EQ(document, "<tasks of alice/>");
    EXPECT_EQ(storedContent(store, "\\a.txt"), "kept");
    EXPECT_EQ(store.logon("bob", "pw2", session), R::WrongPassword);
    ASSERT_EQ(store.logon("bob", "new pw", session), R::Success);
    EXPECT_EQ(session.customerID, bob.customerID);

    // A healthy store has nothing to repair and keeps its database.
    auto before = FileSystem::listDirectory(folder);
    EXPECT_EQ(LocalStore::repair(folder, "", password, report), R::Success);
    EXPECT_EQ(asked, 1);
    EXPECT_EQ(FileSystem::listDirectory(folder), before);
}

// Holds a put in the middle of its transfer until released.
class GateObserver : public TransferObserver {
public:
    void transferred(uint64_t, uint64_t) override {
        std::call_once(once_, [this] { reached.set_value(); });
        released.wait();
    }
    bool shouldContinue() override { return true; }

    std::promise<void> reached, release;
    std::shared_future<void> released = release.get_future().share();

private:
    std::once_flag once_;
};

using LocalStoreThreadTest = LocalStoreTest;

// While one upload holds a file no other writes it, and uploads of other files go on through
// the same store at once: small ones the unnamed-file way, large ones a part file.
TEST_F(LocalStoreThreadTest, OnlyOneUploadWritesAFileWhileSeveralGoOnThroughOneStore) {
    auto second = another();
    ASSERT_EQ(store.makeFolder("\\d", "", ""), R::Success);
    const std::string data = patternBytes(3 * 1024 * 1024);
    GateObserver gate;
    int64_t firstResult = -1;
    std::thread writer([&] {
        MemorySource source(data, "t");
        firstResult = store.put("\\f", source, Date(), &gate);
    });
    gate.reached.get_future().wait();
    EXPECT_EQ(putText(*second, "\\f", "other"), R::Conflict);

    constexpr int Threads = 4, Files = 12;
    auto pathOf = [](int thread, int i) {
        return "\\d\\" + std::string(i % 2 ? "f" : "g") + std::to_string(thread * 100 + i);
    };
    auto contentOf = [](int thread, int i) {
        size_t size = i % 4 == 3 ? LocalStore::ChunkSize + 5 : static_cast<size_t>(100 + i);
        return std::to_string(thread * 100 + i) + patternBytes(size);
    };
    std::vector<std::thread> workers;
    std::atomic<int> failures{0};
    for (int t = 0; t < Threads; ++t)
        workers.emplace_back([&, t] {
            for (int i = 0; i < Files; ++i) {
                StoreQuota quota;
                failures += putText(store, pathOf(t, i), contentOf(t, i), Date(),
                                    0100600 | static_cast<uint32_t>(i)) != R::Success;
                failures += i % 5 == 0 && store.quota(quota) != R::Success;
            }
        });
    gate.release.set_value();
    writer.join();
    for (auto& worker : workers)
        worker.join();
    EXPECT_EQ(firstResult, R::Success);
    EXPECT_EQ(storedContent(*second, "\\f"), data);
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(names(store, "\\d").size(), static_cast<size_t>(Threads * Files));
    for (int t = 0; t < Threads; ++t)
        for (int i = 0; i < Files; ++i)
            EXPECT_EQ(std::to_string(itemAt(store, pathOf(t, i)).mode) + storedContent(store, pathOf(t, i)),
                      std::to_string(0100600 | i) + contentOf(t, i)) << pathOf(t, i);
}

namespace {

std::vector<std::string> keptPaths(LocalFolderTotals& totals) {
    std::vector<std::pair<std::string, std::string>> changed;
    std::vector<std::string> gone;
    totals.takeChanges(changed, gone);
    std::vector<std::string> paths;
    for (const auto& [path, record] : changed)
        paths.push_back(path);
    std::sort(paths.begin(), paths.end());
    return paths;
}

// Figures read while folders still changed are read again when a session ends.
TEST(LocalFolderTotalsTest, FreshReadingsAreSettledAtSessionEndAndFoldersWhoseTimesMovedAreReadAgain) {
    TempHome home;
    const std::string top = home.file("top");
    ASSERT_TRUE(FileSystem::createDirectories(top + "/inner"));
    ASSERT_TRUE(FileSystem::writeFileAtomically(top + "/inner/a", "12345"));
    ASSERT_TRUE(FileSystem::writeFileAtomically(top + "/b", "xy"));

    LocalFolderTotals totals;
    LocalFolderTotals::Totals figures = totals.of(top, "\\top", {});
    EXPECT_EQ(figures.bytes, 7u);
    EXPECT_EQ(figures.files, 2);
    EXPECT_TRUE(keptPaths(totals).empty()); // just written: not to be trusted yet

    totals.settle(); // still too fresh: nothing to keep
    EXPECT_TRUE(keptPaths(totals).empty());

    const Date past = Date::now().addingTimeInterval(-60);
    ASSERT_TRUE(FileSystem::setModifyTime(top, past));
    ASSERT_TRUE(FileSystem::setModifyTime(top + "/inner", past));
    totals.settle();
    EXPECT_EQ(keptPaths(totals), (std::vector<std::string>{top, top + "/inner"}));
    // Another process's changes move the times of the folders they touch, which are read
    // again: a folder moved in brings its files along.
    ASSERT_TRUE(FileSystem::createDirectories(home.file("elsewhere/moved")));
    ASSERT_TRUE(FileSystem::writeFileAtomically(home.file("elsewhere/moved/m"), "123"));
    ASSERT_TRUE(FileSystem::moveItem(home.file("elsewhere/moved"), top + "/inner/moved"));
    EXPECT_EQ(totals.of(top, "\\top", {}).bytes, 10u);

    // A folder that went before the end of the session is dropped, not kept.
    ASSERT_TRUE(FileSystem::writeFileAtomically(top + "/inner/c", "c"));
    totals.forget(top + "/inner");
    totals.of(top, "\\top", {});
    ASSERT_TRUE(FileSystem::removeAll(top + "/inner"));
    totals.settle();
    EXPECT_TRUE(keptPaths(totals).empty());
    EXPECT_EQ(totals.of(top, "\\top", {}).bytes, 2u);
}

} // namespace

} // namespace cirrovault::test

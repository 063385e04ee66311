#include <algorithm>
#include <thread>

#include <gtest/gtest.h>

#include "platform/framework/SessionFixture.h"
#include "platform/os/Semaphore.h"

using namespace cirrovault;

namespace {
using Codes = std::vector<int64_t>;
using namespace ResultCode;

class PathTreeTest : public test::SessionFixture {
protected:
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

TEST_F(PathTreeTest, ChangesThroughTheSessionKeepFolderFiguresInStep) {
    folders({"\\T", "\\T\\Docs", "\\H"});
    PathInfo info;
    ASSERT_EQ(found({"\\T\\Docs\\a.txt", "\\H\\x", "\\T\\Docs", "\\T"}), "--++");
    store_->resetCounts();

    put("\\T\\Docs\\a.txt", std::string(10, 'a'));
    put("\\T\\Docs\\b.txt", std::string(5, 'b'));
    expectInStep({"\\T", "\\T\\Docs"});
    put("\\T\\Docs\\a.txt", std::string(25, 'a')); // replaced: size changes, count not
    expectInStep({"\\T"});

    // The versioning moves: rename in place, then move into the history folder.
    ASSERT_EQ(api().EditFile("\\T\\Docs\\a.txt", "a0.txt", "", ""), Success);
    EXPECT_EQ(found({"\\T\\Docs\\a.txt", "\\T\\Docs\\a0.txt"}), "-+");
    ASSERT_EQ(api().CopyPaths({"\\T\\Docs\\a0.txt"}, "\\H", nullptr, true), Success);
    EXPECT_EQ(found({"\\T\\Docs\\a0.txt"}), "-");
    ASSERT_TRUE(tree().FindPath("\\H\\a0.txt", info, false));
    EXPECT_EQ(info.iSize, 25u); // the replaced size, moved along
    expectInStep({"\\T", "\\H"});

    ASSERT_EQ(api().CopyPaths({"\\T\\Docs"}, "\\H", nullptr, false), Success);
    expectInStep({"\\H"});
    ASSERT_EQ(api().DeletePaths({"\\T\\Docs\\b.txt"}, nullptr, false), Success);
    expectInStep({"\\T", "\\T\\Docs"});
    ASSERT_EQ(api().EditFolder("\\T\\Docs", "Papers", "", ""), Success);
    EXPECT_EQ(found({"\\T\\Docs"}), "-");
    expectInStep({"\\T\\Papers"});
    // All of that was followed without listing a folder again.
    EXPECT_EQ(store_->totalLists(), 0);
}

TEST_F(PathTreeTest, RefreshForgetsThePathAndBelow) {
    folders({"\\A", "\\A\\B"});
    EXPECT_EQ(found({"\\A\\B\\new"}), "-");
    // Changed behind the cache's back (another computer): not seen until refreshed.
    ASSERT_EQ(local_->makeFolder("\\A\\B\\new", "", ""), Success);
    EXPECT_EQ(found({"\\A\\B\\new"}), "-");
    EXPECT_EQ(tree().RefreshSvrPath("\\A"), Success);
    EXPECT_EQ(found({"\\A\\B\\new"}), "+");
    EXPECT_EQ((Codes{tree().RefreshSvrPath("\\A\\gone"), tree().RefreshSvrPath("\\A\\..\\.."),
                     tree().RefreshSvrPath("\\")}),
              (Codes{NotFound, BadPath, Success}));

    // Logged off, nothing is answered from what was cached before.
    api().Logoff();
    EXPECT_EQ(found({"\\A"}), "-");
    EXPECT_EQ(tree().RefreshSvrPath("\\"), NotLoggedOn);
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

    // Made behind the cache's back: seen after a refresh of the folder or above it.
    ASSERT_EQ(local_->makeFolder("\\Gone", "", ""), Success);
    ASSERT_EQ(local_->makeFolder("\\Gone\\Deep", "", ""), Success);
    EXPECT_EQ(found({"\\Gone\\Deep"}), "-");
    tree().RefreshSvrPath("\\Gone\\Deep");
    expectInStep({"\\Gone\\Deep"});
}

TEST_F(PathTreeTest, AMoveIntoAFolderNotListedKeepsTheListingsAbove) {
    folders({"\\T", "\\T\\Docs", "\\H", "\\H\\Task", "\\H\\Task\\Docs"});
    put("\\T\\Docs\\a.txt", std::string(10, 'a'));
    put("\\H\\Task\\Docs\\old0.txt", std::string(4, 'o'));
    ASSERT_EQ(tree().RefreshSvrPath("\\"), Success);
    ASSERT_EQ(found({"\\T\\Docs\\a.txt", "\\H\\Task"}), "++"); // \H held, \H\Task not
    store_->resetCounts();

    // The versioning move lands in a folder whose listing is not held.
    for (int n = 1; n <= 3; ++n) {
        put("\\T\\Docs\\a.txt", std::string(10 + n, 'a'));
        std::string version = "a" + std::to_string(n) + ".txt";
        ASSERT_EQ(api().EditFile("\\T\\Docs\\a.txt", version, "", ""), Success);
        ASSERT_EQ(api().CopyPaths({"\\T\\Docs\\" + version}, "\\H\\Task\\Docs", nullptr, true),
                  Success);
        expectInStep({"\\H", "\\H\\Task", "\\T"});
    }
    // Followed from the figures of the one folder below the held listings.
    EXPECT_EQ(store_->totalLists(), 0);
    ASSERT_EQ(api().DeletePaths({"\\H\\Task\\Docs\\a2.txt"}, nullptr, false), Success);
    expectInStep({"\\H"});
}

class PathTreeConcurrencyTest : public PathTreeTest {};

TEST_F(PathTreeConcurrencyTest, LookupsInOneFolderFromManyThreadsListItOnce) {
    folders({"\\Many"});
    for (int i = 0; i < 8; ++i)
        put("\\Many\\f" + std::to_string(i), "x");
    tree().RefreshSvrPath("\\"); // forgets the listing of \Many
    store_->resetCounts();
    std::vector<std::thread> threads;
    std::string marks[8];
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 8; ++i)
                marks[t] += found({"\\Many\\f" + std::to_string((i + t) % 8)});
        });
    for (auto& thread : threads)
        thread.join();
    for (const std::string& seen : marks)
        EXPECT_EQ(seen, "++++++++");
    EXPECT_EQ(store_->listCount("\\Many"), 1);
}

TEST_F(PathTreeConcurrencyTest, FoldersListedAheadAreListedOnce) {
    folders({"\\P"});
    std::vector<std::string> ahead;
    for (int i = 0; i < 20; ++i) {
        ahead.push_back("\\P\\D" + std::to_string(i));
        folders({ahead.back()});
        put(ahead.back() + "\\old", "x");
    }
    tree().RefreshSvrPath("\\P");
    store_->resetCounts();
    tree().prefetchFolders(ahead);
    for (const auto& at : ahead) { // listed by the thread ahead or by this one
        EXPECT_EQ(found({at + "\\old"}), "+");
        EXPECT_EQ(store_->listCount(at), 1) << at;
    }
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

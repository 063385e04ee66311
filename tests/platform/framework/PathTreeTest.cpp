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

// Threads looking up the same folders at once, and the thread listing them ahead.
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

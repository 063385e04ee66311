#include <chrono>
#include <functional>
#include <thread>

#include <gtest/gtest.h>

#include "common/TempHome.h"
#include "common/WebDavTestServer.h"
#include "platform/store/StoreTestSupport.h"
#include "platform/store/webdav/WebDavFolderTotals.h"
#include "platform/store/webdav/WebDavStore.h"

namespace cirrovault::test {

namespace {

namespace R = ResultCode;
using Totals = WebDavFolderTotals::Totals;

// The requests an action cost, as the server logged them, between looks at paths never there.
class RequestCounter {
public:
    RequestCounter(const WebDavTestServer& server, StoreBackend& store)
        : server_(server), store_(store) {}

    std::vector<std::string> of(const std::function<void()>& action) {
        size_t start = fence();
        action();
        size_t end = fence() - 1;
        auto lines = *server_.requests();
        return {lines.begin() + static_cast<long>(start), lines.begin() + static_cast<long>(end)};
    }

private:
    // Index just past the fence's line, which is logged just after its answer.
    size_t fence() {
        const std::string name = "fence-" + std::to_string(++fences_);
        StoreItem item;
        EXPECT_EQ(store_.stat("\\" + name, item), R::NotFound);
        for (int i = 0; i < 3000; ++i) { // lighttpd writes its log a few seconds late under load
            auto lines = *server_.requests();
            for (size_t at = lines.size(); at-- > 0;)
                if (lines[at].find("/" + name + " ") != std::string::npos)
                    return at + 1;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        ADD_FAILURE() << "the server did not log " << name;
        return server_.requests()->size();
    }

    const WebDavTestServer& server_;
    StoreBackend& store_;
    int fences_ = 0;
};

std::unique_ptr<WebDavStore> loggedOn(const WebDavTestServer& server) {
    return test::loggedOn(std::make_unique<WebDavStore>(server.url("{user}/")));
}

} // namespace

TEST(WebDavFolderFiguresTest, AFolderIsWalkedOnceThenEachListingIsOneRequest) {
    TempHome home;
    WebDavTestServer server(WebDavTestServer::Kind::Apache, home.file("server"),
                            {{"alice", "secret"}});
    // Three folders of two leaves each, a four-byte file in every leaf.
    const std::vector<std::string> folders = {
        "\\T",          "\\T\\A0",        "\\T\\A0\\B0", "\\T\\A0\\B1", "\\T\\A1",
        "\\T\\A1\\B0", "\\T\\A1\\B1", "\\T\\A2",        "\\T\\A2\\B0", "\\T\\A2\\B1"};
    for (auto writer = loggedOn(server); const auto& folder : folders) {
        ASSERT_EQ(writer->makeFolder(folder, "", ""), R::Success);
        if (folder.find("\\B") != std::string::npos) {
            ASSERT_EQ(putText(*writer, folder + "\\f", "four"), R::Success);
        }
    }
    auto own = loggedOn(server);
    WebDavStore& store = *own;
    RequestCounter requests(server, store);

    std::string task;
    auto walk = requests.of([&] { task = figuresOf(store, "\\T"); });
    EXPECT_EQ(task, "24/6");
    // The item, then a listing per folder; one more line was seen once under load (cause open).
    EXPECT_GE(walk.size(), 1 + folders.size()) << testing::PrintToString(walk);
    EXPECT_LE(walk.size(), 2 + folders.size()) << testing::PrintToString(walk);

    // The walk's listings serve the listings that follow it, each once.
    std::vector<StoreItem> items;
    auto list = [&](const std::vector<std::string>& which) {
        return requests.of([&] {
            for (const auto& folder : which)
                ASSERT_EQ(store.list(folder, items), R::Success) << folder;
        }).size();
    };
    EXPECT_EQ(list(folders), 0u);
    EXPECT_EQ(list(folders), folders.size());
    // A change made after a walk drops the held listing of its folder, and only that one.
    figuresOf(store, "\\T");
    ASSERT_EQ(putText(store, "\\T\\A2\\B0\\late", "x"), R::Success);
    EXPECT_EQ(list({"\\T\\A2\\B0"}), 1u);
    EXPECT_EQ(items.size(), 2u);
    EXPECT_EQ(list({"\\T\\A2\\B1"}), 0u);
    ASSERT_EQ(store.remove("\\T\\A2\\B0\\late"), R::Success);
    ASSERT_EQ(store.list("\\T", items), R::Success);
    ASSERT_EQ(items.size(), 3u);
    for (const auto& item : items)
        EXPECT_EQ(figures(item), "8/2") << item.name;

    // The figures follow this connection's puts. A new file's name is not looked at first
    // (Apache refuses a MOVE onto an occupied name).
    auto stored =
        requests.of([&] { ASSERT_EQ(putText(store, "\\T\\A0\\new", "12345"), R::Success); });
    EXPECT_EQ(stored.size(), 4u) << "the part, its size checked, its time, its move onto the name";
    EXPECT_EQ(list({"\\T"}), 1u);
    for (const auto& item : items)
        EXPECT_EQ(item.fileCount, item.name == "A0" ? 3 : 2) << item.name;
    EXPECT_EQ(itemAt(store, "\\T").size, 29u);
}

// Without properties one metadata write serves many files, whether put at once or not.
TEST(WebDavFolderFiguresTest, NewFilesWithoutPropertiesCostFourRequestsEachAtOnceOrNot) {
    TempHome home;
    WebDavTestServer server(WebDavTestServer::Kind::LighttpdWithoutProperties,
                            home.file("server"), {{"alice", "secret"}});
    auto own = loggedOn(server);
    WebDavStore& store = *own;
    ASSERT_EQ(store.makeFolder("\\S", "", ""), R::Success);
    ASSERT_EQ(store.makeFolder("\\P", "", ""), R::Success);
    ASSERT_EQ(store.flush(), R::Success);
    RequestCounter requests(server, store);
    constexpr int Files = 12;
    auto one = requests.of([&] {
        for (int i = 0; i < Files; ++i)
            ASSERT_EQ(putText(store, "\\S\\f" + std::to_string(i), "four"), R::Success);
        ASSERT_EQ(store.flush(), R::Success);
    });
    auto parallel = requests.of([&] {
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&, t] {
                for (int i = t; i < Files; i += 4)
                    EXPECT_EQ(putText(store, "\\P\\f" + std::to_string(i), "four"), R::Success);
            });
        for (auto& thread : threads)
            thread.join();
        ASSERT_EQ(store.flush(), R::Success);
    });
    // Each file: a look at its name (lighttpd's MOVE replaces what is there), its part, its
    // size checked, its move; then once for all the listing, the document read and written.
    EXPECT_EQ(one.size(), 4u * Files + 3) << testing::PrintToString(one);
    EXPECT_EQ(parallel.size(), one.size()) << testing::PrintToString(parallel);
}

TEST(WebDavFolderTotalsTest, ChangesMoveTheFiguresAboveAndOldFiguresAreCountedAgain) {
    WebDavFolderTotals totals;
    const double now = 1000;
    // Counted bottom up, as a walk does.
    totals.remember({"T", "A", "B"}, {10, 1}, now);
    totals.remember({"T", "A"}, {30, 2}, now);
    totals.remember({"T", "C"}, {0, 0}, now);
    totals.remember({"T"}, {30, 2}, now);
    totals.remember({}, {30, 2}, now);

    totals.adjust({"T", "A", "B"}, 5, 1); // a new file of 5 bytes
    EXPECT_EQ(totals.find({"T", "A"}, now), (Totals{35, 3}));
    EXPECT_EQ(totals.find({}, now), (Totals{35, 3}));

    // A recount that finds more than was held moves the folders above by the difference.
    totals.remember({"T", "A", "B"}, {100, 4}, now);
    EXPECT_EQ(totals.find({"T"}, now), (Totals{120, 5}));

    ASSERT_TRUE(totals.carryFolder({"T", "A"}, {"T", "C", "A"}, false));
    EXPECT_EQ(totals.find({"T", "A"}, now), std::nullopt);
    EXPECT_EQ(totals.find({"T", "C", "A", "B"}, now), (Totals{100, 4}));
    EXPECT_EQ(totals.find({"T", "C"}, now), (Totals{120, 5}));
    EXPECT_EQ(totals.find({"T"}, now), (Totals{120, 5}));

    ASSERT_TRUE(totals.carryFolder({"T", "C", "A"}, {"D"}, true)); // a copy
    EXPECT_EQ(totals.find({}, now), (Totals{240, 10}));
    ASSERT_TRUE(totals.dropFolder({"T", "C"}));
    EXPECT_EQ(totals.find({"T", "C", "A", "B"}, now), std::nullopt);
    EXPECT_EQ(totals.find({"T"}, now), (Totals{0, 0}));
    EXPECT_EQ(totals.find({}, now), (Totals{120, 5}));
    EXPECT_FALSE(totals.dropFolder({"never", "counted"}));

    // Forgetting a folder drops the figures that included it, and those below it.
    totals.forget({"D"});
    EXPECT_EQ(totals.find({}, now), std::nullopt);
    EXPECT_EQ(totals.find({"D", "B"}, now), std::nullopt);
    EXPECT_EQ(totals.find({"T"}, now), (Totals{0, 0}));

    // Figures never go below nothing, and old ones are not trusted.
    totals.adjust({"T"}, -50, -3);
    EXPECT_EQ(totals.find({"T"}, now), (Totals{0, 0}));
    EXPECT_EQ(totals.find({"T"}, now + WebDavFolderTotals::MaxAgeSeconds + 1), std::nullopt);
}

} // namespace cirrovault::test

// The WebDAV store beyond what every backend owes: what it asks of servers and reads from
// their answers, and, on a server that keeps no properties, our metadata documents.
#include <chrono>
#include <functional>
#include <thread>

#include <gtest/gtest.h>

#include "common/TempHome.h"
#include "common/WebDavTestServer.h"
#include "platform/store/StoreTestSupport.h"
#include "platform/store/webdav/WebDavFolderTotals.h"
#include "platform/store/webdav/WebDavMetaDocument.h"
#include "platform/store/webdav/WebDavMultistatus.h"
#include "platform/store/webdav/WebDavStore.h"
#include "platform/store/webdav/WebDavTextSource.h"

namespace cirrovault::test {

namespace {

namespace R = ResultCode;
using Totals = WebDavFolderTotals::Totals;
using Kind = WebDavTestServer::Kind;

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
        EXPECT_EQ(statCode(store_, "\\" + name), R::NotFound);
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
    WebDavTestServer server(Kind::Apache, home.file("server"), {{"alice", "secret"}});
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
    WebDavTestServer server(Kind::LighttpdWithoutProperties, home.file("server"), {{"alice", "secret"}});
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

// Own prefixes, default namespaces, absolute and encoded hrefs, properties found and missing.
TEST(WebDavMultistatusTest, ReadsRepliesTheWayServersWriteThem) {
    const std::string prefixed = R"(<?xml version="1.0" encoding="utf-8"?>
<D:multistatus xmlns:D="DAV:" xmlns:ns1="urn:x-cirrovault:">
<D:response xmlns:lp1="DAV:">
<D:href>/dav/alice/</D:href>
<D:propstat><D:prop><lp1:resourcetype><D:collection/></lp1:resourcetype>
<lp1:getlastmodified>Sun, 22 Nov 2026 07:40:11 GMT</lp1:getlastmodified></D:prop>
<D:status>HTTP/1.1 200 OK</D:status></D:propstat>
<D:propstat><D:prop><ns1:mtime/></D:prop><D:status>HTTP/1.1 404 Not Found</D:status></D:propstat>
</D:response>
<D:response><D:href>http://h:8080/dav/alice/a%20b%C3%A9.txt</D:href>
<D:propstat><D:prop><lp1:getcontentlength xmlns:lp1="DAV:">8</lp1:getcontentlength>
<lp1:getetag xmlns:lp1="DAV:">W/"8-66"</lp1:getetag>
<mtime xmlns="urn:x-cirrovault:" xmlns:ns0="urn:uuid:x/" ns0:dt="string"> 1600000000.5 </mtime>
</D:prop><D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response>
</D:multistatus>)";
    std::vector<DavResource> resources;
    ASSERT_TRUE(WebDavMultistatus::parse(prefixed, resources));
    ASSERT_EQ(resources.size(), 2u);
    EXPECT_EQ(resources[0].path, "/dav/alice");
    EXPECT_TRUE(resources[0].collection);
    ASSERT_TRUE(resources[0].lastModified);
    EXPECT_EQ(resources[0].lastModified->timeIntervalSince1970(), 1795333211.0);
    EXPECT_FALSE(resources[0].property("urn:x-cirrovault:", "mtime"));
    EXPECT_EQ(resources[0].failed.count("urn:x-cirrovault: mtime"), 1u);

    EXPECT_EQ(resources[1].path, "/dav/alice/a b\xC3\xA9.txt");
    EXPECT_FALSE(resources[1].collection);
    EXPECT_EQ(resources[1].contentLength, 8u);
    EXPECT_EQ(resources[1].etag, "W/\"8-66\"");
    EXPECT_EQ(resources[1].property("urn:x-cirrovault:", "mtime"), "1600000000.5");

    // A MOVE or COPY answered 207 with its failure inside.
    const std::string hidden = R"(<?xml version="1.0"?><x:multistatus xmlns:x="DAV:">
<x:response><x:href>/dav/alice/X/</x:href><x:status>HTTP/1.1 409 Conflict</x:status></x:response>
</x:multistatus>)";
    ASSERT_TRUE(WebDavMultistatus::parse(hidden, resources));
    ASSERT_EQ(resources.size(), 1u);
    EXPECT_EQ(resources[0].status, 409);

    // Not a multistatus: an error page, an element of another namespace, nothing.
    EXPECT_FALSE(WebDavMultistatus::parse("<html><body>500</body></html>", resources));
    EXPECT_FALSE(WebDavMultistatus::parse("<multistatus xmlns=\"urn:other\"/>", resources));
    EXPECT_FALSE(WebDavMultistatus::parse("", resources));
    EXPECT_FALSE(WebDavMultistatus::parseHttpDate("yesterday"));
}

TEST(WebDavMetaDocumentTest, AnyNameSurvivesAndDamagedLinesAreSkipped) {
    WebDavMetaEntries entries;
    entries["plain.txt"] = {false, 1'650'000'000.123456, 42, 1'700'000'000, "", ""};
    entries["tab\tnew\nline %41 é"] = {false, 1.5, 0, 0, "", ""};
    entries["Folder"] = {true, 0, 0, 0, "my\tdescription", ""};
    entries["id_key"] = {false, 2.5, 6, 0, "", "", 0100600};
    std::string text = WebDavMetaDocument::format(entries);
    auto parsed = WebDavMetaDocument::parse(text);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(*parsed, entries);

    parsed = WebDavMetaDocument::parse(text + "f\tbroken\tnot-a-number\t1\t2\nx\ty\nd\n" +
                                       "f\tlate.txt\t5\t6\t7\n");
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->size(), entries.size() + 1);
    EXPECT_EQ(parsed->count("broken"), 0u);
    EXPECT_EQ(parsed->at("late.txt").size, 6u);
    EXPECT_EQ(parsed->at("late.txt").mode, 0u); // written before files kept their modes

    EXPECT_FALSE(WebDavMetaDocument::parse("<html>not ours</html>"));
    EXPECT_FALSE(WebDavMetaDocument::parse(""));
}

TEST(WebDavMetaStoreTest, TimesReachOtherProcessesOnlyOnceWrittenAndOnlyForOurCopy) {
    TempHome home;
    WebDavTestServer server(Kind::LighttpdWithoutProperties, home.file("server"), {{"alice", "secret"}});
    auto logon = [&] { return loggedOn(std::make_unique<WebDavStore>(server.url("{user}/"))); };
    auto timeOf = [](StoreBackend& store, const std::string& path) {
        return itemAt(store, path).modifyTime.timeIntervalSince1970();
    };
    const std::string onServer = server.dataFolder() + "/alice/Docs";
    const Date when{1'600'000'000.25};
    const double seconds = when.timeIntervalSince1970();
    auto first = logon();
    ASSERT_EQ(first->makeFolder("\\Docs", "documents", "Docs"), R::Success);
    ASSERT_EQ(putText(*first, "\\Docs\\a.txt", "alpha", when), R::Success);
    ASSERT_EQ(putText(*first, "\\Docs\\b.txt", "bravo", when), R::Success);

    // Another process sees the server's own time until the changes are written.
    auto second = logon();
    EXPECT_NE(timeOf(*second, "\\Docs\\a.txt"), seconds);
    ASSERT_EQ(first->flush(), R::Success);
    EXPECT_EQ(timeOf(*second, "\\Docs\\a.txt"), seconds);
    std::string entries; // the documents themselves are never listed
    for (const auto& item : listed(*second, "\\"))
        entries += item.name + " " + item.description + ", ";
    for (const auto& item : listed(*second, "\\Docs"))
        entries += item.name + (item.modifyTime.timeIntervalSince1970() == seconds ? " ours, " : " not, ");
    EXPECT_EQ(entries, "Docs documents, a.txt ours, b.txt ours, ");

    // Someone else replaced b.txt (same size, later time): our entry no longer holds.
    ASSERT_TRUE(FileSystem::writeFileAtomically(onServer + "/b.txt", "BRAVO"));
    ASSERT_TRUE(FileSystem::setModifyTime(onServer + "/b.txt", Date(1'800'000'000.0)));
    EXPECT_EQ(timeOf(*second, "\\Docs\\b.txt"), 1'800'000'000.0);

    // Our name is refused for user files; a damaged document costs only the times.
    EXPECT_EQ(putText(*second, "\\Docs\\.cirrovault-meta", "x", when), R::BadPath);
    EXPECT_EQ(second->makeFolder("\\.cirrovault-meta", "", ""), R::BadPath);
    // (Through the server: it may hold a file's status for a moment after a change on disk.)
    WebDavTextSource garbage("garbage");
    HttpRequest request = httpRequest(
        "PUT", "http://127.0.0.1:" + std::to_string(server.port()) + "/alice/Docs/.cirrovault-meta");
    request.upload = &garbage;
    request.uploadLength = 7;
    HttpResponse response;
    ASSERT_EQ(WebDavHttpSession("alice", "secret", {}).perform(request, response), R::Success);
    ASSERT_EQ(response.status / 100, 2);
    EXPECT_NE(timeOf(*second, "\\Docs\\a.txt"), seconds);
    ASSERT_EQ(putText(*second, "\\Docs\\a.txt", "alpha", when), R::Success);
    ASSERT_EQ(second->flush(), R::Success);
    EXPECT_EQ(timeOf(*logon(), "\\Docs\\a.txt"), seconds);

    // Changes waiting for a folder that is then removed are dropped, not written back.
    ASSERT_EQ(putText(*second, "\\Docs\\new.txt", "new", when), R::Success);
    ASSERT_EQ(second->remove("\\Docs"), R::Success);
    EXPECT_EQ(second->flush(), R::Success);
    EXPECT_FALSE(FileSystem::exists(onServer));
}

} // namespace cirrovault::test

#include <thread>

#include <gtest/gtest.h>

#include "common/TempHome.h"
#include "platform/os/ResultCodes.h"
#include "platform/os/FileSystem.h"
#include "platform/store/FaultInjectingStore.h"
#include "platform/store/StoreTestSupport.h"
#include "platform/store/local/LocalStore.h"

namespace cirrovault::test {

namespace R = ResultCode;
using Op = FaultInjectingStore::Operation;

namespace {

class FaultInjectingStoreTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(store.logon("alice", "pw", session), R::Success); }
    int64_t putText(const std::string& path, const std::string& text) {
        MemorySource source(text, "t");
        return store.put(path, source, Date(1'600'000'000.0), nullptr);
    }

    TempHome home;
    std::shared_ptr<LocalStore> local = std::make_shared<LocalStore>(home.file("store"));
    FaultInjectingStore store{local};
    StoreSession session;
};

class FaultInjectingStoreThreadTest : public FaultInjectingStoreTest {};

} // namespace

TEST_F(FaultInjectingStoreTest, SpaceLimitHitsOnlyTheChosenPut) {
    store.failPutWithSpaceLimit(2);
    EXPECT_EQ(putText("\\a", "a"), R::Success);
    EXPECT_EQ(putText("\\b", "b"), R::SpaceLimit);
    EXPECT_EQ(putText("\\c", "c"), R::Success);
    StoreItem item;
    EXPECT_EQ(local->stat("\\b", item), R::NotFound);
    EXPECT_EQ(store.putCount(), 3);
}

TEST_F(FaultInjectingStoreTest, ChosenOperationsFailAsOftenAsOrdered) {
    StoreItem item;
    store.failOperation(Op::Stat, R::Failure, 2);
    EXPECT_EQ(store.stat("\\", item), R::Failure);
    EXPECT_EQ(store.stat("\\", item), R::Failure);
    EXPECT_EQ(store.stat("\\", item), R::Success);

    store.failOperation(Op::WriteTaskList, R::StorageError);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(store.writeTaskList("doc", ""), R::StorageError);
    store.failOperation(Op::MakeFolder, R::SubItemLimit);
    EXPECT_EQ(store.makeFolder("\\x", "", ""), R::SubItemLimit);
    EXPECT_EQ(local->stat("\\x", item), R::NotFound); // never reached the store
    store.clearFaults();
    EXPECT_EQ(store.writeTaskList("doc", ""), R::Success);
    EXPECT_EQ(store.makeFolder("\\x", "", ""), R::Success);
}

TEST_F(FaultInjectingStoreTest, VanishedFileIsListedButNotFound) {
    ASSERT_EQ(putText("\\gone.txt", "here"), R::Success);
    store.vanishPath("gone.txt");
    StoreItem item;
    MemorySink sink;
    EXPECT_EQ(store.stat("\\gone.txt", item), R::NotFound);
    EXPECT_EQ(store.get("\\gone.txt", sink, nullptr), R::NotFound);
    std::vector<StoreItem> items;
    ASSERT_EQ(store.list("\\", items), R::Success);
    EXPECT_EQ(items.size(), 1u);
    store.clearFaults();
    EXPECT_EQ(store.stat("\\gone.txt", item), R::Success);
}

TEST_F(FaultInjectingStoreTest, DroppedConnectionLeavesAResumablePart) {
    const std::string data = patternBytes(4 * 1024 * 1024 + 5);
    const uint64_t cut = 1536 * 1024;
    store.dropConnectionInNextPut(cut);
    MemorySource first(data, "same");
    EXPECT_EQ(store.put("\\big", first, Date(), nullptr), R::Failure);
    StoreItem item;
    EXPECT_EQ(store.stat("\\big", item), R::NotFound);
    auto part = FileSystem::linkStatus(local->accountFilesFolder() + "/big.part");
    ASSERT_TRUE(part);
    EXPECT_EQ(part->size, cut);

    MemorySource second(data, "same");
    StopObserver observer;
    ASSERT_EQ(store.put("\\big", second, Date(), &observer), R::Success);
    EXPECT_EQ(observer.resumed, cut);
    EXPECT_EQ(second.bytesRead(), data.size() - cut);
    EXPECT_EQ(storedContent(store, "\\big"), data);
}

TEST_F(FaultInjectingStoreThreadTest, HungPutEndsWhenItsObserverCancels) {
    ASSERT_EQ(putText("\\f", "before"), R::Success);
    store.hangNextPut();
    StopObserver observer;
    int64_t result = -1;
    std::thread uploader([&] {
        MemorySource source("after", "t");
        result = store.put("\\f", source, Date(), &observer);
    });
    store.waitUntilHanging();
    observer.stop = true;
    uploader.join();
    EXPECT_EQ(result, R::Cancelled);
    EXPECT_EQ(storedContent(store, "\\f"), "before");

    // Released instead of cancelled, the put goes through.
    store.hangNextPut();
    std::thread slow([&] {
        MemorySource source("after", "t");
        result = store.put("\\f", source, Date(), nullptr);
    });
    store.waitUntilHanging();
    store.releaseHang();
    slow.join();
    EXPECT_EQ(result, R::Success);
    EXPECT_EQ(storedContent(store, "\\f"), "after");
}

} // namespace cirrovault::test

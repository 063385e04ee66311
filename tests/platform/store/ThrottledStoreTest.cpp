#include <memory>

#include <gtest/gtest.h>

#include "common/ManualClockScope.h"
#include "common/TempHome.h"
#include "platform/os/ResultCodes.h"
#include "platform/os/Clock.h"
#include "platform/store/StoreFactory.h"
#include "platform/store/StoreTestSupport.h"
#include "platform/store/ThrottledStore.h"
#include "platform/store/local/LocalStore.h"

namespace cirrovault::test {
namespace {

class StopAtTime : public TransferObserver {
public:
    explicit StopAtTime(Date at) : at_(at) {}
    void transferred(uint64_t, uint64_t) override {}
    bool shouldContinue() override { return Clock::shared().now() < at_; }

private:
    Date at_;
};

TEST(ThrottledStore, UploadsKeepToTheLimitAndACancelEndsTheWait) {
    TempHome home;
    {
        test::ManualClockScope scope;
        auto clock = scope.clock;
        auto local = std::make_shared<LocalStore>(home.file("store"));
        ThrottledStore store(local, 10000);
        StoreSession session;
        ASSERT_EQ(store.logon("alice", "pw", session), ResultCode::Success);

        Date start = clock->now();
        MemorySource small(patternBytes(50000), "s");
        ASSERT_EQ(store.put("\\small", small, Date(1'600'000'000.0), nullptr), ResultCode::Success);
        // One second's allowance, then 40 000 bytes at 10 000 a second.
        EXPECT_NEAR(clock->now().timeIntervalSinceDate(start), 4.0, 0.2);
        EXPECT_EQ(itemAt(*local, "\\small").size, 50000u);

        // A file in parts would take two minutes; the cancel after two seconds is heard.
        start = clock->now();
        MemorySource big(patternBytes(LocalStore::ChunkSize + 200000), "b");
        StopAtTime observer(start.addingTimeInterval(2.0));
        EXPECT_EQ(store.put("\\big", big, Date(1'600'000'000.0), &observer), ResultCode::Cancelled);
        EXPECT_LT(clock->now().timeIntervalSinceDate(start), 2.5);
    }

    // Only a limit puts the pacing in between: the store stays itself otherwise.
    std::string url = "file://" + home.file("store");
    EXPECT_TRUE(std::dynamic_pointer_cast<LocalStore>(StoreFactory::makeBackend(url)));
    EXPECT_TRUE(std::dynamic_pointer_cast<ThrottledStore>(StoreFactory::makeBackend(url, {}, 1024)));
}

} // namespace
} // namespace cirrovault::test

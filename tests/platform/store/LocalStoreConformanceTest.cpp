// The shared store suites, run against the embedded local store.
#include <unistd.h>

#include "common/TempHome.h"
#include "platform/os/ResultCodes.h"
#include "platform/store/StoreConformance.h"
#include "platform/store/local/LocalStore.h"

namespace cirrovault::test {

namespace {

class LocalStoreEnvironment : public StoreEnvironment {
public:
    std::shared_ptr<StoreBackend> open() override {
        return std::make_shared<LocalStore>(home_.file("store"));
    }
    std::string scratchFolder() override { return home_.file("scratch"); }
    bool plantLink(const StoreSession& session, const std::string& serverFolder,
                   const std::string& linkName, const std::string& target) override {
        std::string folder = home_.file("store/accounts/" + session.customerID + "/files");
        for (char c : serverFolder)
            folder += c == '\\' ? '/' : c;
        return ::symlink(target.c_str(), (folder + "/" + linkName).c_str()) == 0;
    }
    bool limitQuota(StoreBackend& store, int64_t bytes) override {
        auto* local = dynamic_cast<LocalStore*>(&store);
        return local && local->setQuota(bytes) == ResultCode::Success;
    }

private:
    TempHome home_;
};

const StoreKind Local{"Local", [] { return std::make_unique<LocalStoreEnvironment>(); }};

} // namespace

INSTANTIATE_TEST_SUITE_P(Local, StoreConformanceTest, testing::Values(Local), storeKindName);
INSTANTIATE_TEST_SUITE_P(Local, StoreConcurrencyTest, testing::Values(Local), storeKindName);

} // namespace cirrovault::test

#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "platform/store/StoreBackend.h"

namespace cirrovault::test {

// One store set up for a test: a fresh, empty service of one backend kind.
class StoreEnvironment {
public:
    virtual ~StoreEnvironment() = default;
    // A new connection to the same store. Called in other threads and in forked
    // children too, so it must not share state with earlier connections.
    virtual std::shared_ptr<StoreBackend> open() = 0;
    // A local folder outside the store for the test's own files.
    virtual std::string scratchFolder() = 0;
    // Places a symbolic link named linkName in the account's serverFolder, leading to
    // target. False when the backend's storage cannot hold one.
    virtual bool plantLink(const StoreSession& session, const std::string& serverFolder,
                           const std::string& linkName, const std::string& target) = 0;
    // Limits the logged-on account to bytes. False when the backend cannot.
    virtual bool limitQuota(StoreBackend& store, int64_t bytes) = 0;
    // Whether each user has an account of their own; false where the service's root
    // is one folder that every user of the server shares.
    virtual bool accountsApart() const { return true; }
};

struct StoreKind {
    std::string name;
    std::function<std::unique_ptr<StoreEnvironment>()> make;
};

inline void PrintTo(const StoreKind& kind, std::ostream* os) { *os << kind.name; }

inline std::string storeKindName(const testing::TestParamInfo<StoreKind>& info) {
    return info.param.name;
}

// The behaviour every backend owes the engine. A backend joins by instantiating these
// suites with its own StoreKind.
class StoreConformanceTest : public testing::TestWithParam<StoreKind> {
protected:
    void SetUp() override;
    // Logs a fresh connection on as the test's usual user.
    std::shared_ptr<StoreBackend> connect(const std::string& user = "alice");

    std::unique_ptr<StoreEnvironment> env;
    std::shared_ptr<StoreBackend> store; // logged on as "alice"
    StoreSession session;
};

class StoreConcurrencyTest : public StoreConformanceTest {};

} // namespace cirrovault::test

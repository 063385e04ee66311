#pragma once

#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>
#include <string>

#include "platform/framework/TransferApiUtil.h"
#include "platform/os/ResultCodes.h"
#include "platform/store/local/LocalStore.h"

namespace cirrovault::test {

// Logs the shared session on for the life of the object, over a local store that answers a
// chosen customer ID, even one no store would make: for code that keeps per-account files.
class AccountSession {
public:
    explicit AccountSession(std::string customerID) {
        struct ChosenCustomerStore : LocalStore {
            ChosenCustomerStore(std::string id)
                : LocalStore(std::string(std::getenv("HOME")) + "/account-store"), id(std::move(id)) {}
            int64_t logon(const std::string& user, const std::string& password, StoreSession& session) override {
                int64_t result = LocalStore::logon(user, password, session);
                session.customerID = id;
                return result;
            }
            std::string id;
        };
        auto& api = TransferApiUtil::shareTransferApiUtil();
        api.SetBackend(std::make_shared<ChosenCustomerStore>(std::move(customerID)));
        EXPECT_EQ(api.Logon("tester", "secret"), ResultCode::Success);
    }
    ~AccountSession() {
        TransferApiUtil::shareTransferApiUtil().Logoff();
        TransferApiUtil::shareTransferApiUtil().SetBackend(nullptr);
    }
    AccountSession(const AccountSession&) = delete;
    AccountSession& operator=(const AccountSession&) = delete;
};

} // namespace cirrovault::test

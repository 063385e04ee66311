#pragma once

#include <cstdlib>
#include <memory>
#include <string>

#include "platform/framework/TransferApiUtil.h"
#include "platform/os/ResultCodes.h"
#include "platform/store/local/LocalStore.h"

namespace cirrovault::test {

// A local store under $HOME whose logon answers a chosen customer ID: enough for code
// that keeps per-account files on this computer, even under an ID no store would make.
class ChosenCustomerStore : public LocalStore {
public:
    explicit ChosenCustomerStore(std::string customerID)
        : LocalStore(std::string(std::getenv("HOME")) + "/account-store"),
          customerID_(std::move(customerID)) {}

    int64_t logon(const std::string& userName, const std::string& password,
                  StoreSession& session) override {
        int64_t result = LocalStore::logon(userName, password, session);
        session.customerID = customerID_;
        return result;
    }

private:
    std::string customerID_;
};

// Logs the shared session on as an account with the given customer ID for the life of
// the object.
class AccountSession {
public:
    explicit AccountSession(const std::string& customerID) {
        auto& api = TransferApiUtil::shareTransferApiUtil();
        api.SetBackend(std::make_shared<ChosenCustomerStore>(customerID));
        result_ = api.Logon("tester", "secret");
    }
    ~AccountSession() {
        TransferApiUtil::shareTransferApiUtil().Logoff();
        TransferApiUtil::shareTransferApiUtil().SetBackend(nullptr);
    }
    AccountSession(const AccountSession&) = delete;
    AccountSession& operator=(const AccountSession&) = delete;

    bool loggedOn() const { return result_ == ResultCode::Success; }

private:
    int64_t result_ = ResultCode::Failure;
};

} // namespace cirrovault::test

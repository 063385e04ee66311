#pragma once

#include <memory>
#include <string>

#include "platform/os/ResultCodes.h"
#include "platform/framework/TransferApiUtil.h"
#include "platform/store/StoreBackend.h"

namespace cirrovault::test {

// A store that only knows how to log on, answering a chosen customer ID: enough for
// code that keeps per-account files on this computer.
class LogonOnlyBackend : public StoreBackend {
public:
    explicit LogonOnlyBackend(std::string customerID) : customerID_(std::move(customerID)) {}

    StoreCapabilities capabilities() const override { return {}; }
    std::string describe() const override { return "logon-only test store"; }
    int64_t logon(const std::string&, const std::string&, StoreSession& session) override {
        session.sessionID = "session-1";
        session.customerID = customerID_;
        return ResultCode::Success;
    }
    void logoff() override {}
    int64_t stat(const std::string&, StoreItem&) override { return ResultCode::NotFound; }
    int64_t list(const std::string&, std::vector<StoreItem>&) override { return ResultCode::NotFound; }
    int64_t makeFolder(const std::string&, const std::string&, const std::string&) override {
        return ResultCode::Failure;
    }
    int64_t setFolderInfo(const std::string&, const std::string&, const std::string&) override {
        return ResultCode::Failure;
    }
    int64_t put(const std::string&, ByteSource&, Date, TransferObserver*) override {
        return ResultCode::Failure;
    }
    int64_t get(const std::string&, ByteSink&, TransferObserver*) override { return ResultCode::Failure; }
    int64_t move(const std::string&, const std::string&) override { return ResultCode::Failure; }
    int64_t copy(const std::string&, const std::string&) override { return ResultCode::Failure; }
    int64_t remove(const std::string&) override { return ResultCode::Failure; }
    int64_t quota(StoreQuota&) override { return ResultCode::Failure; }
    int64_t readTaskList(std::string&, std::string&) override { return ResultCode::Failure; }
    int64_t writeTaskList(const std::string&, const std::string&) override { return ResultCode::Failure; }
    int64_t flush() override { return ResultCode::Success; }

private:
    std::string customerID_;
};

// Logs the shared session on as an account with the given customer ID for the life of
// the object.
class AccountSession {
public:
    explicit AccountSession(const std::string& customerID) {
        auto& api = TransferApiUtil::shareTransferApiUtil();
        api.SetBackend(std::make_shared<LogonOnlyBackend>(customerID));
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

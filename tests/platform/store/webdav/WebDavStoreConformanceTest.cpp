// The shared store suites, run against real WebDAV servers on 127.0.0.1.
#include "common/TempHome.h"
#include "common/WebDavTestServer.h"
#include "platform/framework/NimboSetting.h"
#include "platform/store/StoreConformance.h"
#include "platform/store/webdav/WebDavStore.h"

namespace cirrovault::test {

namespace {

class WebDavStoreEnvironment : public StoreEnvironment {
public:
    WebDavStoreEnvironment(WebDavTestServer::Kind kind, WebDavTestServer::Account account)
        : server_(kind, home_.file("server"), {{"alice", "secret"}, {"bob", "secret"}}, account),
          account_(account) {}

    std::shared_ptr<StoreBackend> open() override {
        return std::make_shared<WebDavStore>(server_.accountUrl(), HttpTimeouts{},
                                             &NimboSetting::GetSetting);
    }
    std::string scratchFolder() override { return home_.file("scratch"); }
    bool plantLink(const StoreSession&, const std::string&, const std::string&,
                   const std::string&) override {
        return false; // the server decides about links in its folder, not the store
    }
    bool limitQuota(StoreBackend&, int64_t bytes) override {
        return NimboSetting::SetSettingValueForKey("Quota", std::to_string(bytes));
    }
    bool accountsApart() const override {
        return account_ == WebDavTestServer::Account::FolderPerUser;
    }

private:
    TempHome home_;
    WebDavTestServer server_;
    WebDavTestServer::Account account_;
};

StoreKind kindOf(std::string name, WebDavTestServer::Kind kind,
                 WebDavTestServer::Account account = WebDavTestServer::Account::FolderPerUser) {
    if (account == WebDavTestServer::Account::AtRoot)
        name += "AtRoot";
    return {name,
            [kind, account] { return std::make_unique<WebDavStoreEnvironment>(kind, account); }};
}

using K = WebDavTestServer::Kind;
constexpr auto AtRoot = WebDavTestServer::Account::AtRoot;

// Every server at a folder of its own and at its root; lighttpd without its property
// database keeps times and descriptions in our metadata documents.
const auto Servers =
    testing::Values(kindOf("Apache", K::Apache), kindOf("Apache", K::Apache, AtRoot),
                    kindOf("Lighttpd", K::Lighttpd), kindOf("Lighttpd", K::Lighttpd, AtRoot),
                    kindOf("LighttpdWithoutProperties", K::LighttpdWithoutProperties),
                    kindOf("Rclone", K::Rclone), kindOf("Rclone", K::Rclone, AtRoot),
                    kindOf("Sabre", K::Sabre), kindOf("Sabre", K::Sabre, AtRoot));

} // namespace

INSTANTIATE_TEST_SUITE_P(WebDav, StoreConformanceTest, Servers, storeKindName);
INSTANTIATE_TEST_SUITE_P(WebDav, StoreConcurrencyTest, Servers, storeKindName);

} // namespace cirrovault::test

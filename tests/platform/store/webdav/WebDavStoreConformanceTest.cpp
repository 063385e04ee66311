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
    explicit WebDavStoreEnvironment(WebDavTestServer::Kind kind)
        : server_(kind, home_.file("server"), {{"alice", "secret"}, {"bob", "secret"}}) {}

    std::shared_ptr<StoreBackend> open() override {
        return std::make_shared<WebDavStore>(server_.url("{user}/"));
    }
    std::string scratchFolder() override { return home_.file("scratch"); }
    bool plantLink(const StoreSession&, const std::string&, const std::string&,
                   const std::string&) override {
        return false; // the server decides about links in its folder, not the store
    }
    bool limitQuota(StoreBackend&, int64_t bytes) override {
        return NimboSetting::SetSettingValueForKey("Quota", std::to_string(bytes));
    }

private:
    TempHome home_;
    WebDavTestServer server_;
};

const StoreKind Apache{"Apache", [] {
                           return std::make_unique<WebDavStoreEnvironment>(
                               WebDavTestServer::Kind::Apache);
                       }};
const StoreKind Lighttpd{"Lighttpd", [] {
                             return std::make_unique<WebDavStoreEnvironment>(
                                 WebDavTestServer::Kind::Lighttpd);
                         }};
// No property database: times and descriptions go into our metadata documents.
const StoreKind LighttpdPlain{"LighttpdWithoutProperties", [] {
                                  return std::make_unique<WebDavStoreEnvironment>(
                                      WebDavTestServer::Kind::LighttpdWithoutProperties);
                              }};

} // namespace

INSTANTIATE_TEST_SUITE_P(WebDav, StoreConformanceTest,
                         testing::Values(Apache, Lighttpd, LighttpdPlain), storeKindName);
INSTANTIATE_TEST_SUITE_P(WebDav, StoreConcurrencyTest,
                         testing::Values(Apache, Lighttpd, LighttpdPlain), storeKindName);

} // namespace cirrovault::test

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <future>
#include <thread>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/LoopbackPort.h"
#include "common/TempHome.h"
#include "platform/framework/CurlHandleController.h"
#include "platform/os/CallCancel.h"
#include "platform/store/StoreTestSupport.h"
#include "platform/store/webdav/MisbehavingDavServer.h"
#include "platform/store/webdav/WebDavStore.h"

namespace cirrovault::test {

namespace {

namespace R = ResultCode;
using Fault = MisbehavingDavServer::Fault;
using Clock = std::chrono::steady_clock;

// Asks the thread's cancel flag, the way the engine's transfers do.
class ControllerObserver : public TransferObserver {
public:
    ControllerObserver() : cancel_(CurlHandleController::shared().beginTransfer()) {}
    ~ControllerObserver() override { CurlHandleController::shared().endTransfer(); }
    void transferred(uint64_t, uint64_t) override {}
    bool shouldContinue() override { return !*cancel_; }

private:
    std::shared_ptr<std::atomic<bool>> cancel_;
};

std::unique_ptr<WebDavStore> loggedOn(const MisbehavingDavServer& server, HttpTimeouts timeouts = {}) {
    WebDavCapabilityProbe::forgetAll();
    return test::loggedOn(std::make_unique<WebDavStore>(server.url(), timeouts));
}

// Lets a request reach the server and hang there; answers when it did.
Clock::time_point reached(const MisbehavingDavServer& server, const std::string& request) {
    for (auto started = Clock::now(); !server.saw(request) && Clock::now() - started < std::chrono::seconds(5);)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return Clock::now();
}

} // namespace

// A part that cannot become the file goes; a short one never takes the file's name.
TEST(WebDavFaultThreadTest, FailedUploadsAnswerTheirCodesAndNeverReplaceTheFile) {
    struct Case {
        Fault fault;
        int64_t expected;
        bool moved, partRemoved;
    };
    for (auto [fault, expected, moved, partRemoved] :
         {Case{Fault::DropMidBody, R::Failure, false, false},
          Case{Fault::Answer500, R::Failure, false, false},
          Case{Fault::Answer507, R::SpaceLimit, false, false},
          Case{Fault::KeepHalf, R::Failure, false, true},
          Case{Fault::RefuseMove, R::Forbidden, true, true}}) {
        SCOPED_TRACE(static_cast<int>(fault));
        MisbehavingDavServer server(fault);
        auto store = loggedOn(server);
        EXPECT_FALSE(store->capabilities().resumableUpload); // no ranges, no properties here
        MemorySource source(patternBytes(512 * 1024), "tag");
        EXPECT_EQ(store->put("\\file.bin", source, Date(1'600'000'000.0), nullptr), expected);
        EXPECT_TRUE(server.saw("PUT /dav/file.bin.part "));
        EXPECT_EQ(server.saw("MOVE "), moved); // the real name is only ever a move's target
        EXPECT_FALSE(server.saw("PUT /dav/file.bin "));
        EXPECT_TRUE(!partRemoved || server.saw("DELETE /dav/file.bin.part ")) << "part kept";
    }
}

TEST(WebDavFaultThreadTest, CancelEndsAHungLogonOrUploadAtOnceAndAStallTimesOut) {
    {
        MisbehavingDavServer server(Fault::HangLogon);
        WebDavCapabilityProbe::forgetAll();
        WebDavStore store(server.url());
        auto flag = std::make_shared<std::atomic<bool>>(false);
        auto result = std::async(std::launch::async, [&] {
            CallCancel scope(flag);
            StoreSession session;
            return store.logon("alice", "secret", session);
        });
        auto cancelAt = reached(server, "PROPFIND /dav/ ");
        *flag = true;
        EXPECT_EQ(result.get(), R::Failure);
        EXPECT_LT(Clock::now() - cancelAt, std::chrono::milliseconds(500));
    }
    MisbehavingDavServer server(Fault::Hang);
    auto store = loggedOn(server);
    MemorySource source(patternBytes(64 * 1024), "tag");
    std::promise<std::thread::id> worker;
    auto result = std::async(std::launch::async, [&] {
        ControllerObserver observer;
        worker.set_value(std::this_thread::get_id());
        return store->put("\\file.bin", source, Date(1'600'000'000.0), &observer);
    });
    auto id = worker.get_future().get();
    auto cancelAt = reached(server, "PUT /dav/file.bin.part ");
    EXPECT_TRUE(CurlHandleController::shared().CancelConnection(id));
    EXPECT_EQ(result.get(), R::Cancelled);
    EXPECT_LT(Clock::now() - cancelAt, std::chrono::milliseconds(500));
    EXPECT_FALSE(server.saw("MOVE "));

    // Nobody cancels: the stalled request ends by itself as an ordinary failure.
    store.reset(); // the server serves one connection at a time: give it back
    EXPECT_EQ(putText(*loggedOn(server, HttpTimeouts{2, 1}), "\\other.bin", "x", Date()), R::Failure);
}

// An unverified certificate is an unsafe connection, not an unreachable server.
TEST(WebDavFaultThreadTest, UnreachableServerAndUnverifiedCertificateRefuseLogonEachWithItsCode) {
    WebDavStore nowhere("webdav://127.0.0.1:" + std::to_string(unusedLoopbackPort()) + "/dav/");
    StoreSession session;
    EXPECT_EQ(nowhere.logon("alice", "secret", session), R::Failure);
    EXPECT_TRUE(session.sessionID.empty());
    EXPECT_EQ(statCode(nowhere, "\\"), R::NotLoggedOn);

    TempHome home;
    const std::string dir = home.path();
    const std::string make = "openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=127.0.0.1 -days 1 -keyout " +
                             dir + "/key.pem -out " + dir + "/cert.pem >/dev/null 2>&1";
    ASSERT_EQ(std::system(make.c_str()), 0) << "openssl is missing: run scripts/install-deps.sh";
    const std::string port = std::to_string(unusedLoopbackPort());
    pid_t server = ::fork();
    if (server == 0) {
        int null = ::open("/dev/null", O_RDWR);
        for (int fd : {0, 1, 2})
            ::dup2(null, fd);
        ::execlp("openssl", "openssl", "s_server", "-quiet", "-www", "-accept", port.c_str(), "-cert",
                 (dir + "/cert.pem").c_str(), "-key", (dir + "/key.pem").c_str(), nullptr);
        ::_exit(127);
    }
    for (int i = 0; i < 500 && !acceptsOnLoopback(std::stoi(port)); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));

    WebDavStore store("webdavs://127.0.0.1:" + port + "/dav/");
    EXPECT_EQ(store.logon("alice", "secret", session), R::BadCertificate);
    EXPECT_TRUE(session.sessionID.empty());
    ::kill(server, SIGTERM);
    ::waitpid(server, nullptr, 0);
}

} // namespace cirrovault::test

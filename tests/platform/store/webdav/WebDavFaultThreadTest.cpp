#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <future>
#include <map>
#include <mutex>
#include <thread>
#include <tuple>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/LoopbackPort.h"
#include "common/TempHome.h"
#include "platform/framework/CurlHandleController.h"
#include "platform/os/CallCancel.h"
#include "platform/store/StoreTestSupport.h"
#include "platform/store/webdav/WebDavStore.h"

namespace cirrovault::test {

namespace {

// Just enough of a WebDAV server for a logon and an upload, failing uploads of ".part" files
// (or the logon's first look) the way chosen. It keeps no properties, refuses ranges, and
// notes every request line it saw.
class MisbehavingDavServer {
public:
    // KeepHalf: acknowledges a body but keeps half of it; RefuseMove: 403 to every MOVE.
    enum class Fault { DropMidBody, Answer500, Answer507, Hang, KeepHalf, RefuseMove, HangLogon };

    explicit MisbehavingDavServer(Fault fault) : fault_(fault) {
        listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        ::bind(listener_, reinterpret_cast<sockaddr*>(&address), size); // a free port
        ::listen(listener_, 16);
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] {
            while (readable(listener_))
                if (int client = ::accept(listener_, nullptr, nullptr); client >= 0) {
                    handle(client);
                    ::close(client);
                }
        });
    }
    ~MisbehavingDavServer() {
        stop_ = true;
        thread_.join();
        ::close(listener_);
    }

    std::string url() const { return "webdav://127.0.0.1:" + std::to_string(port_) + "/dav/"; }
    bool saw(const std::string& prefix) const {
        std::lock_guard lock(mutex_);
        return std::any_of(requests_.begin(), requests_.end(),
                           [&](const std::string& line) { return line.starts_with(prefix); });
    }

private:
    // Waits for the socket to be readable, giving up when the server stops.
    bool readable(int fd) {
        while (!stop_) {
            pollfd p{fd, POLLIN, 0};
            if (int n = ::poll(&p, 1, 10); n != 0)
                return n > 0;
        }
        return false;
    }
    // Reads until buffer holds at least size bytes; false when the peer or the server stops.
    bool fill(int fd, std::string& buffer, size_t size) {
        char chunk[65536];
        while (buffer.size() < size) {
            ssize_t n = readable(fd) ? ::read(fd, chunk, sizeof chunk) : 0;
            if (n <= 0)
                return false;
            buffer.append(chunk, static_cast<size_t>(n));
        }
        return true;
    }

    static void reply(int fd, int status, const std::string& body = "") {
        std::string text = "HTTP/1.1 " + std::to_string(status) + " X\r\nContent-Length: " +
                           std::to_string(body.size()) + "\r\nContent-Type: " +
                           (body.empty() ? "text/plain" : "application/xml") + "\r\n\r\n" + body;
        (void)!::write(fd, text.data(), text.size());
    }
    static void multistatus(int fd, const std::string& href, const std::string& props) {
        reply(fd, 207,
              "<?xml version=\"1.0\"?><multistatus xmlns=\"DAV:\"><response><href>" + href +
                  "</href><propstat><prop>" + props +
                  "</prop><status>HTTP/1.1 200 OK</status></propstat></response></multistatus>");
    }

    void handle(int fd) {
        std::string buffer;
        for (;;) {
            size_t end;
            while ((end = buffer.find("\r\n\r\n")) == std::string::npos)
                if (!fill(fd, buffer, buffer.size() + 1))
                    return;
            std::string head = buffer.substr(0, end);
            buffer.erase(0, end + 4);
            std::string line = head.substr(0, head.find("\r\n"));
            {
                std::lock_guard lock(mutex_);
                requests_.push_back(line);
            }
            size_t length = 0;
            if (auto at = head.find("Content-Length: "); at != std::string::npos)
                length = std::stoul(head.substr(at + 16));
            const bool partPut = line.starts_with("PUT ") && line.find(".part ") != std::string::npos;
            const bool ranged = head.find("Content-Range") != std::string::npos;
            if (partPut && fault_ == Fault::DropMidBody) {
                fill(fd, buffer, length / 2);
                return; // the connection dies with half the body read
            }
            if (!fill(fd, buffer, length))
                return;
            buffer.erase(0, length);
            if ((partPut && fault_ == Fault::Hang) ||
                (fault_ == Fault::HangLogon && line.starts_with("PROPFIND /dav/ "))) {
                fill(fd, buffer, SIZE_MAX); // until the client or the server gives up
                return;
            }
            const std::string target = line.substr(line.find(' ') + 1,
                                                   line.rfind(' ') - line.find(' ') - 1);
            std::lock_guard lock(mutex_);
            if (partPut && (fault_ == Fault::Answer500 || fault_ == Fault::Answer507)) {
                reply(fd, fault_ == Fault::Answer500 ? 500 : 507);
            } else if (line.starts_with("PROPFIND /dav/ ") ||
                       line.starts_with("PROPFIND /dav/.cirrovault/ ")) {
                multistatus(fd, target, "<resourcetype><collection/></resourcetype>");
            } else if (line.starts_with("PROPFIND ") && sizes_.count(target)) {
                multistatus(fd, target, "<resourcetype/><getcontentlength>" +
                                            std::to_string(sizes_[target]) + "</getcontentlength>");
            } else if (line.starts_with("PROPFIND ") || line.starts_with("GET ")) {
                reply(fd, 404);
            } else if (line.starts_with("MOVE ")) {
                reply(fd, fault_ == Fault::RefuseMove ? 403 : 201);
            } else if (line.starts_with("PUT ")) {
                if (partPut && !ranged)
                    sizes_[target] = fault_ == Fault::KeepHalf ? length / 2 : length;
                reply(fd, ranged ? 400 : 201);
            } else if (line.starts_with("MKCOL ")) {
                reply(fd, 405);
            } else if (line.starts_with("DELETE ")) {
                sizes_.erase(target);
                reply(fd, 204);
            } else {
                reply(fd, 501); // PROPPATCH and the rest: not kept here
            }
        }
    }

    Fault fault_;
    int listener_ = -1, port_ = 0;
    std::atomic<bool> stop_{false};
    std::thread thread_;
    mutable std::mutex mutex_;
    std::vector<std::string> requests_;   // guarded by mutex_
    std::map<std::string, size_t> sizes_; // guarded by mutex_; the parts it holds
};

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
    using Case = std::tuple<Fault, int64_t, bool, bool>;
    for (auto [fault, expected, moved, partRemoved] :
         {Case{Fault::DropMidBody, R::Failure, false, false}, Case{Fault::Answer500, R::Failure, false, false},
          Case{Fault::Answer507, R::SpaceLimit, false, false}, Case{Fault::KeepHalf, R::Failure, false, true},
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

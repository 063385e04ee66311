#pragma once

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace cirrovault::test {

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

} // namespace cirrovault::test

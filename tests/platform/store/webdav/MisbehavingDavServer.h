#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace cirrovault::test {

// Just enough of a WebDAV server on 127.0.0.1 for a logon and an upload, which fails
// uploads of ".part" files the way chosen: drop the connection half-way through the
// body, answer 500 or 507, take the body and never answer, keep only half of a body it
// acknowledged, or refuse (403) every MOVE; or it never answers the logon's first look
// at the account. It keeps no properties and ignores no ranges (it refuses them), and
// notes every request line it saw.
class MisbehavingDavServer {
public:
    enum class Fault { None, DropMidBody, Answer500, Answer507, Hang, KeepHalf, RefuseMove, HangLogon };

    explicit MisbehavingDavServer(Fault fault) : fault_(fault) {
        listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
        int yes = 1;
        ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::listen(listener_, 16);
        socklen_t size = sizeof address;
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~MisbehavingDavServer() {
        stop_ = true;
        thread_.join();
        ::close(listener_);
    }

    std::string url() const { return "webdav://127.0.0.1:" + std::to_string(port_) + "/dav/"; }
    std::vector<std::string> requests() const {
        std::lock_guard lock(mutex_);
        return requests_;
    }
    bool saw(const std::string& prefix) const {
        for (const auto& line : requests())
            if (line.compare(0, prefix.size(), prefix) == 0)
                return true;
        return false;
    }

private:
    // Waits for the socket to be readable, giving up when the server stops.
    bool readable(int fd) {
        while (!stop_) {
            pollfd p{fd, POLLIN, 0};
            int n = ::poll(&p, 1, 10);
            if (n > 0)
                return true;
            if (n < 0)
                return false;
        }
        return false;
    }

    void serve() {
        while (readable(listener_)) {
            int client = ::accept(listener_, nullptr, nullptr);
            if (client >= 0) {
                handle(client);
                ::close(client);
            }
        }
    }

    static void reply(int fd, int status, const std::string& body = "",
                      const std::string& type = "text/plain") {
        std::string text = "HTTP/1.1 " + std::to_string(status) + " X\r\nContent-Length: " +
                           std::to_string(body.size()) + "\r\nContent-Type: " + type +
                           "\r\n\r\n" + body;
        (void)!::write(fd, text.data(), text.size());
    }

    // One connection, its requests one after another.
    void handle(int fd) {
        std::string buffer;
        char chunk[65536];
        for (;;) {
            size_t end;
            while ((end = buffer.find("\r\n\r\n")) == std::string::npos) {
                if (!readable(fd))
                    return;
                ssize_t n = ::read(fd, chunk, sizeof chunk);
                if (n <= 0)
                    return;
                buffer.append(chunk, static_cast<size_t>(n));
            }
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
            const bool partPut = line.rfind("PUT ", 0) == 0 &&
                                 line.find(".part ") != std::string::npos;
            if (partPut && fault_ == Fault::DropMidBody) {
                while (buffer.size() < length / 2) {
                    if (!readable(fd))
                        return;
                    ssize_t n = ::read(fd, chunk, sizeof chunk);
                    if (n <= 0)
                        return;
                    buffer.append(chunk, static_cast<size_t>(n));
                }
                return; // the connection dies with half the body read
            }
            while (buffer.size() < length) {
                if (!readable(fd))
                    return;
                ssize_t n = ::read(fd, chunk, sizeof chunk);
                if (n <= 0)
                    return;
                buffer.append(chunk, static_cast<size_t>(n));
            }
            buffer.erase(0, length);
            if ((partPut && fault_ == Fault::Hang) ||
                (fault_ == Fault::HangLogon && line.rfind("PROPFIND /dav/ ", 0) == 0)) {
                while (!stop_ && readable(fd)) {
                    if (::read(fd, chunk, sizeof chunk) <= 0)
                        return;
                }
                return;
            }
            const std::string target = line.substr(line.find(' ') + 1,
                                                   line.rfind(' ') - line.find(' ') - 1);
            if (partPut && fault_ != Fault::Answer500 && fault_ != Fault::Answer507 &&
                head.find("Content-Range") == std::string::npos) {
                std::lock_guard lock(mutex_);
                sizes_[target] = fault_ == Fault::KeepHalf ? length / 2 : length;
            }
            if (partPut && fault_ == Fault::Answer500) {
                reply(fd, 500);
            } else if (partPut && fault_ == Fault::Answer507) {
                reply(fd, 507);
            } else if (line.rfind("PROPFIND /dav/ ", 0) == 0 ||
                       line.rfind("PROPFIND /dav/.cirrovault/ ", 0) == 0) {
                std::string path = line.substr(9, line.find(' ', 9) - 9);
                reply(fd, 207,
                      "<?xml version=\"1.0\"?><multistatus xmlns=\"DAV:\"><response><href>" +
                          path + "</href><propstat><prop><resourcetype><collection/>"
                                 "</resourcetype></prop><status>HTTP/1.1 200 OK</status>"
                                 "</propstat></response></multistatus>",
                      "application/xml");
            } else if (line.rfind("PROPFIND ", 0) == 0 && storedSize(target)) {
                reply(fd, 207,
                      "<?xml version=\"1.0\"?><multistatus xmlns=\"DAV:\"><response><href>" +
                          target + "</href><propstat><prop><resourcetype/><getcontentlength>" +
                          std::to_string(*storedSize(target)) +
                          "</getcontentlength></prop><status>HTTP/1.1 200 OK</status>"
                          "</propstat></response></multistatus>",
                      "application/xml");
            } else if (line.rfind("PROPFIND ", 0) == 0 || line.rfind("GET ", 0) == 0) {
                reply(fd, 404);
            } else if (line.rfind("MOVE ", 0) == 0) {
                reply(fd, fault_ == Fault::RefuseMove ? 403 : 201);
            } else if (line.rfind("PUT ", 0) == 0) {
                reply(fd, head.find("Content-Range") != std::string::npos ? 400 : 201);
            } else if (line.rfind("MKCOL ", 0) == 0) {
                reply(fd, 405);
            } else if (line.rfind("DELETE ", 0) == 0) {
                std::lock_guard lock(mutex_);
                sizes_.erase(target);
                reply(fd, 204);
            } else {
                reply(fd, 501); // PROPPATCH and the rest: not kept here
            }
        }
    }

    std::optional<size_t> storedSize(const std::string& target) const {
        std::lock_guard lock(mutex_);
        auto it = sizes_.find(target);
        return it == sizes_.end() ? std::nullopt : std::optional<size_t>(it->second);
    }

    Fault fault_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::thread thread_;
    mutable std::mutex mutex_;
    std::vector<std::string> requests_; // guarded by mutex_
    std::map<std::string, size_t> sizes_; // guarded by mutex_; the parts it holds
};

} // namespace cirrovault::test

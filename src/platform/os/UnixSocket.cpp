#include "platform/os/UnixSocket.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/os/SystemLog.h"

namespace cirrovault {

namespace {

constexpr size_t kLongestLine = 64 * 1024;
constexpr int kSendWaitMs = 5000; // a peer that reads nothing for this long has gone

bool fillAddress(const std::string& path, sockaddr_un& address) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        SystemLog::write("Error: socket path too long: " + path);
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

// Milliseconds for poll, at least 0.
int millis(double seconds) {
    return seconds <= 0 ? 0 : static_cast<int>(seconds * 1000);
}

} // namespace

std::string UnixSocket::runtimeFolder() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    std::string folder = runtime && runtime[0] == '/' ? std::string(runtime) + "/cirrovault"
                                                     : "/tmp/cirrovault-" + std::to_string(getuid());
    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        SystemLog::write("Error: cannot make the socket folder " + folder + ": " + std::strerror(errno));
        return "";
    }
    struct stat st {};
    // In a shared /tmp another user may have made the name first: never use theirs.
    if (::lstat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != getuid()) {
        SystemLog::write("Error: the socket folder " + folder + " is not a folder of this user");
        return "";
    }
    if ((st.st_mode & 077) != 0 && ::chmod(folder.c_str(), 0700) != 0) {
        SystemLog::write("Error: cannot close the socket folder " + folder + " to other users");
        return "";
    }
    return folder;
}

UnixSocket UnixSocket::openFor(const std::string& path, sockaddr_un& address) {
    if (!fillAddress(path, address))
        return {};
    return UnixSocket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

UnixSocket UnixSocket::listen(const std::string& path) {
    sockaddr_un address;
    UnixSocket socket = openFor(path, address);
    if (!socket.valid())
        return {};
    // Only the one listener of this name (the caller holds its lock) comes here.
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        SystemLog::write("Error: cannot remove the old socket " + path);
        return {};
    }
    if (::bind(socket.fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::chmod(path.c_str(), 0600) != 0 || ::listen(socket.fd_, 16) != 0) {
        SystemLog::write("Error: cannot listen at " + path + ": " + std::strerror(errno));
        ::unlink(path.c_str());
        return {};
    }
    return socket;
}

UnixSocket UnixSocket::connect(const std::string& path, Connect* how) {
    *how = Connect::Failed;
    sockaddr_un address;
    UnixSocket socket = openFor(path, address);
    if (!socket.valid())
        return {};
    // Non-blocking: a listener whose queue is full answers EAGAIN at once, not later.
    if (::connect(socket.fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        *how = errno == ENOENT ? Connect::Absent : errno == ECONNREFUSED ? Connect::Refused : Connect::Failed;
        return {};
    }
    *how = Connect::Connected;
    return socket;
}

UnixSocket::~UnixSocket() { close(); }

UnixSocket::UnixSocket(UnixSocket&& other) noexcept : fd_(other.fd_), buffer_(std::move(other.buffer_)) {
    other.fd_ = -1;
}

UnixSocket& UnixSocket::operator=(UnixSocket&& other) noexcept {
    if (this != &other) {
        close();
        fd_ = other.fd_;
        buffer_ = std::move(other.buffer_);
        other.fd_ = -1;
    }
    return *this;
}

void UnixSocket::close() {
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
    buffer_.clear();
}

UnixSocket UnixSocket::accept(double timeoutSeconds) {
    pollfd p{fd_, POLLIN, 0};
    if (fd_ < 0 || ::poll(&p, 1, millis(timeoutSeconds)) != 1)
        return {};
    UnixSocket peer(::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!peer.valid())
        return {};
    // The folder and the mode already keep others out; this holds even if they do not.
    ucred who{};
    socklen_t size = sizeof who;
    if (::getsockopt(peer.fd_, SOL_SOCKET, SO_PEERCRED, &who, &size) != 0 || who.uid != getuid()) {
        SystemLog::write("Error: a connection from another user was refused");
        return {};
    }
    return peer;
}

bool UnixSocket::sendLine(const std::string& text) {
    std::string data = text + "\n";
    size_t sent = 0;
    while (fd_ >= 0 && sent < data.size()) {
        ssize_t n = ::send(fd_, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (n > 0) {
            sent += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        pollfd p{fd_, POLLOUT, 0};
        if (n < 0 && errno == EAGAIN && ::poll(&p, 1, kSendWaitMs) == 1)
            continue;
        return false;
    }
    return fd_ >= 0;
}

UnixSocket::Read UnixSocket::readLine(std::string& line, double timeoutSeconds) {
    using Clock = std::chrono::steady_clock;
    auto deadline = Clock::now() + std::chrono::duration<double>(timeoutSeconds);
    for (;;) {
        if (size_t end = buffer_.find('\n'); end != std::string::npos) {
            line = buffer_.substr(0, end);
            buffer_.erase(0, end + 1);
            return Read::Line;
        }
        if (fd_ < 0 || buffer_.size() > kLongestLine)
            return Read::Closed;
        double left = std::chrono::duration<double>(deadline - Clock::now()).count();
        pollfd p{fd_, POLLIN, 0};
        int ready = ::poll(&p, 1, millis(left));
        // A signal ends the wait early, so the caller sees it at once.
        if (ready == 0 || (ready < 0 && errno == EINTR))
            return Read::Timeout;
        char chunk[4096];
        ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
        if (n > 0)
            buffer_.append(chunk, static_cast<size_t>(n));
        else if (n == 0 || (errno != EAGAIN && errno != EINTR))
            return Read::Closed;
    }
}

} // namespace cirrovault

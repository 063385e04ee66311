#pragma once

#include <string>

struct sockaddr_un;

namespace cirrovault {

// A stream socket in the file system that speaks in lines: how a command talks to the
// daemon of the same user. Move-only; the descriptor closes with the object.
class UnixSocket {
public:
    enum class Read { Line, Timeout, Closed };
    enum class Connect { Connected, Absent, Refused, Failed };

    // A 0700 folder of this user's for sockets: $XDG_RUNTIME_DIR/cirrovault, else
    // /tmp/cirrovault-UID. "" (and a logged error) when it cannot be made, or when what
    // is there is not a folder only this user may enter.
    static std::string runtimeFolder();

    // Listens at path (inside a folder of our own), mode 0600; a file left there by a
    // process that ended is replaced. Invalid on failure, with the error logged.
    static UnixSocket listen(const std::string& path);
    // Refused: the file is there but nobody listens (left by a process that ended).
    static UnixSocket connect(const std::string& path, Connect* how);

    UnixSocket() = default;
    ~UnixSocket();
    UnixSocket(UnixSocket&& other) noexcept;
    UnixSocket& operator=(UnixSocket&& other) noexcept;
    UnixSocket(const UnixSocket&) = delete;
    UnixSocket& operator=(const UnixSocket&) = delete;

    bool valid() const { return fd_ >= 0; }
    // A connection waiting on a listening socket, waiting at most timeoutSeconds;
    // invalid when none came. Connections of other users are closed at once.
    UnixSocket accept(double timeoutSeconds);
    // Sends text and a line feed whole; false when the peer has gone.
    bool sendLine(const std::string& text);
    // The next line without its line feed, waiting at most timeoutSeconds. A line
    // longer than 64 KiB closes the connection: no peer of ours sends one.
    Read readLine(std::string& line, double timeoutSeconds);

private:
    explicit UnixSocket(int fd) : fd_(fd) {}
    // An unconnected stream socket and the address of path; invalid when path is too long.
    static UnixSocket openFor(const std::string& path, sockaddr_un& address);
    void close();

    int fd_ = -1;
    std::string buffer_; // read but not yet returned
};

} // namespace cirrovault

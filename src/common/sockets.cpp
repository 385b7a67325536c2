#include "common/sockets.h"

#include "common/call_failure.h"
#include "logger"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace Vorl::Socket {

namespace {

/// Refuses INADDR_NONE, the result of inet_addr(3) for invalid text: it is the broadcast address,
/// which the kernel would bind, but to which nobody could ever connect.
bool bindTo(int fd, const sockaddr_in& local) {
    if (local.sin_addr.s_addr == INADDR_NONE) {
        errno = EADDRNOTAVAIL;
        return false;
    }
    return bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0;
}

void closeKeepingErrno(int fd) {
    const int savedErrno = errno;
    close(fd);
    errno = savedErrno;
}

/// The path's address; a path that is too long is truncated, with a warning.
sockaddr_un unixAddress(std::string_view path) {
    sockaddr_un peer{};
    peer.sun_family = AF_UNIX;
    constexpr std::size_t longest = sizeof peer.sun_path - 1;
    if (path.size() > longest) {
        Syslog::warning("%s: unix path is long, truncated to size: %d", "unixConnect",
                        static_cast<int>(longest));
    }
    path.copy(peer.sun_path, longest);
    Syslog::debug("%s: path: %s", "unixConnect", peer.sun_path);
    return peer;
}

/// One attempt to connect, which neither blocks nor logs.
struct Attempt {
    int fd = -1;                  // blocking; -1 when the attempt failed
    const char* failed = nullptr; // the call that failed
    int error = 0;                // its errno
};

Attempt attemptConnect(const sockaddr_un& peer) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return {.failed = "socket", .error = errno};
    if (connect(fd, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) < 0) {
        closeKeepingErrno(fd);
        return {.failed = "connect", .error = errno};
    }
    (void)fcntl(fd, F_SETFL, 0); // clears O_NONBLOCK
    return {.fd = fd};
}

bool isTransient(int error) {
    switch (error) {
    case ECONNREFUSED: // bound, but not listening yet
    case EAGAIN:       // the listener's queue is full
    case EINTR:
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
        return true;
    default:
        return false;
    }
}

} // namespace

int tcpListen(std::string_view address, std::uint16_t port, int backlog) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        logCallFailed("tcpListen", "socket");
        return -1;
    }

    const int enable = 1;
    if (const int result = setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &enable, sizeof enable);
        result < 0) {
        // Deliberately logs the call's result, -1, not errno: log parsers expect it.
        Syslog::warning("%s: socket reuseaddr failed, error: %s, code: %d", "tcpListen",
                        strerror(errno), result);
    }

    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(port);
    local.sin_addr.s_addr = address == "0.0.0.0" ? htonl(INADDR_ANY) : inet_addr(address.data());

    Syslog::debug("%s: bind addr: %s, port: %d", "tcpListen", address.data(), port);
    if (!bindTo(fd, local)) {
        logCallFailed("tcpListen", "bind");
        // Deliberately not closed: one socket per failed bind stays open for the lifetime of the
        // process, and nobody knows its number.
        return -1;
    }

    Syslog::debug("%s: listen: %d, conn: %d", "tcpListen", fd, backlog);
    if (listen(fd, backlog) < 0) {
        closeKeepingErrno(fd);
        logCallFailed("tcpListen", "listen");
        return -1;
    }
    return fd;
}

int tcpAccept(int listener, std::string* address) {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    const int fd = accept(listener, reinterpret_cast<sockaddr*>(&peer), &length);
    if (fd < 0) {
        logCallFailed("tcpAccept", "accept");
        return -1;
    }

    if (address != nullptr) {
        char text[INET_ADDRSTRLEN] = "";
        if (inet_ntop(AF_INET, &peer.sin_addr, text, sizeof text) != nullptr) {
            *address = text;
        } else {
            warnCallFailed("tcpAccept", "inet_ntop");
        }
    }
    return fd;
}

int unixConnect(std::string_view path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) {
        logCallFailed("unixConnect", "socket");
        return -1;
    }

    const sockaddr_un peer = unixAddress(path);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) < 0) {
        logCallFailed("unixConnect", "connect");
        closeKeepingErrno(fd);
        return -1;
    }
    Syslog::debug("%s: fd: %d", "unixConnect", fd);
    return fd;
}

int unixConnectWhile(std::string_view path, const std::function<bool()>& again) {
    const sockaddr_un peer = unixAddress(path);
    Attempt attempt = attemptConnect(peer);
    while (attempt.fd < 0 && isTransient(attempt.error) && again()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        attempt = attemptConnect(peer);
    }
    if (attempt.fd < 0) {
        errno = attempt.error;
        logCallFailed("unixConnect", attempt.failed);
        return -1;
    }
    Syslog::debug("%s: fd: %d", "unixConnect", attempt.fd);
    return attempt.fd;
}

} // namespace Vorl::Socket

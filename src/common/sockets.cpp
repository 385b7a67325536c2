#include "common/sockets.h"

#include "common/call_failure.h"
#include "logger"

#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace Vorl::Socket {

namespace {

/// Text that is no address has become the broadcast address: the kernel would bind it, and nobody
/// could ever connect.
bool bindTo(int fd, const sockaddr_in& local) {
    if (local.sin_addr.s_addr == INADDR_NONE) {
        errno = EADDRNOTAVAIL;
        return false;
    }
    return bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0;
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
        const int listenErrno = errno;
        close(fd);
        errno = listenErrno;
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

    sockaddr_un peer{};
    peer.sun_family = AF_UNIX;
    constexpr std::size_t longest = sizeof peer.sun_path - 1;
    if (path.size() > longest) {
        Syslog::warning("%s: unix path is long, truncated to size: %d", "unixConnect",
                        static_cast<int>(longest));
    }
    path.copy(peer.sun_path, longest);

    Syslog::debug("%s: path: %s", "unixConnect", peer.sun_path);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) < 0) {
        const int connectErrno = errno;
        logCallFailed("unixConnect", "connect");
        close(fd);
        errno = connectErrno;
        return -1;
    }
    Syslog::debug("%s: fd: %d", "unixConnect", fd);
    return fd;
}

} // namespace Vorl::Socket

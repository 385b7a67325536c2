#include "road.h"

#include "delay_line.h"
#include "stream.h"

#include <cstring>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace Bench {

namespace {

using Vorl::FileDescriptor;

constexpr int backlog = 128;
constexpr int acceptMilliseconds = 10'000;

sockaddr_in tcpAddress(const char* address, std::uint16_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    inet_pton(AF_INET, address, &result.sin_addr);
    return result;
}

template<typename Address> void listenOn(int fd, const Address& address) {
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0)
        failed("bind");
    if (listen(fd, backlog) < 0)
        failed("listen");
}

FileDescriptor listenTcp(std::uint16_t port) {
    FileDescriptor fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int enable = 1;
    setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &enable, sizeof enable);
    setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &enable, sizeof enable); // for those accepted
    listenOn(fd.get(), tcpAddress("0.0.0.0", port));
    return fd;
}

FileDescriptor listenLocal(const std::string& path) {
    FileDescriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    unlink(path.c_str());
    listenOn(fd.get(), address);
    return fd;
}

} // namespace

Road::Road(std::uint16_t onPort, const std::string& socketPath)
    : port(onPort), listening(socketPath.empty() ? listenTcp(port) : listenLocal(socketPath)) {}

Connection Road::connect(const DelayLine* line) const {
    Connection result;
    result.client = line != nullptr ? line->farSocket()
                                    : FileDescriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int enable = 1; // as RDP clients do
    setsockopt(result.client.get(), IPPROTO_TCP, TCP_NODELAY, &enable, sizeof enable);
    const auto address = tcpAddress(line != nullptr ? DelayLine::nearAddress : "127.0.0.1", port);
    if (::connect(result.client.get(), reinterpret_cast<const sockaddr*>(&address),
                  sizeof address) < 0)
        failed("connect to the relay");

    pollfd entry{listening.get(), POLLIN, 0};
    if (poll(&entry, 1, acceptMilliseconds) <= 0)
        throw std::runtime_error("the relay has not connected to the shadow's socket");
    result.shadow = FileDescriptor(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!result.shadow)
        failed("accept");
    return result;
}

std::vector<Connection> Road::connect(int count) const {
    std::vector<Connection> result;
    result.reserve(static_cast<std::size_t>(count));
    for (int made = 0; made < count; ++made)
        result.push_back(connect());
    return result;
}

} // namespace Bench

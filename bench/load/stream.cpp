#include "stream.h"

#include "clock.h"

#include <cerrno>
#include <cstring>
#include <system_error>

#include <sys/socket.h>

namespace Bench {

void failed(const char* call) {
    throw std::system_error(errno, std::generic_category(), call);
}

bool sendAll(int fd, const void* bytes, std::size_t count) {
    const auto* at = static_cast<const std::uint8_t*>(bytes);
    while (count > 0) {
        const ssize_t sent = ::send(fd, at, count, MSG_NOSIGNAL);
        if (sent < 0)
            return false;
        at += sent;
        count -= static_cast<std::size_t>(sent);
    }
    return true;
}

bool receiveAll(int fd, void* bytes, std::size_t count) {
    const ssize_t received = recv(fd, bytes, count, MSG_WAITALL);
    return received == static_cast<ssize_t>(count);
}

std::size_t receiveSome(int fd, void* bytes, std::size_t count) {
    const ssize_t received = recv(fd, bytes, count, 0);
    return received < 0 ? 0 : static_cast<std::size_t>(received);
}

bool Message::send(int fd) {
    const std::int64_t stamp = now();
    std::memcpy(bytes.data(), &stamp, sizeof stamp);
    return sendAll(fd, bytes.data(), bytes.size());
}

std::int64_t Message::receive(int fd) {
    if (!receiveAll(fd, bytes.data(), bytes.size()))
        return -1;
    std::int64_t stamp = 0;
    std::memcpy(&stamp, bytes.data(), sizeof stamp);
    return now() - stamp;
}

} // namespace Bench

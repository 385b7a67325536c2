#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

/// IPv4 and local stream sockets. The caller owns the returned descriptors. A failure is logged and
/// returned as -1. Any thread may call.
namespace Vorl::Socket {

/// Opens a listening IPv4 socket.
/// @param address dotted quad, NUL-terminated. Text that inet_addr(3) does not accept makes bind(2)
///                fail.
/// @param port in host byte order
/// A socket whose bind failed is deliberately left open (see the definition).
[[nodiscard]] int tcpListen(std::string_view address, std::uint16_t port, int backlog);

/// Accepts one connection. The new descriptor is not close-on-exec.
/// @param address if given, is set to the peer's address as dotted quad; unchanged when that fails
[[nodiscard]] int tcpAccept(int listener, std::string* address = nullptr);

/// Connects to a local stream socket. The descriptor is not close-on-exec.
/// @param path truncated to 107 bytes, with a warning, when it is longer (unix(7): sun_path)
[[nodiscard]] int unixConnect(std::string_view path);

/// Same, but never blocks, and tries again every millisecond while `again` returns true, if the
/// failure may pass: nobody listens yet, the queue is full, or descriptors or memory are short.
/// Only the last failure is logged.
[[nodiscard]] int unixConnectWhile(std::string_view path, const std::function<bool()>& again);

} // namespace Vorl::Socket

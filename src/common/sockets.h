#pragma once

#include <cstdint>
#include <string>
#include <string_view>

/// IPv4 and local stream sockets. Every descriptor that is returned belongs to the caller; a
/// failure is logged and returned as -1. No state, no locks: any thread may call.
namespace Vorl::Socket {

/// A listening IPv4 socket.
/// @param address dotted quad; its characters end in a NUL. Text that is none fails at bind.
/// @param port in host byte order
/// A socket whose bind failed is deliberately left open (see the definition).
[[nodiscard]] int tcpListen(std::string_view address, std::uint16_t port, int backlog);

/// Accepts one connection. The new descriptor is not close-on-exec.
/// @param address if given, receives the peer's address as dotted quad, or stays as it is when
///                that cannot be told
[[nodiscard]] int tcpAccept(int listener, std::string* address = nullptr);

/// Connects to a local stream socket. The descriptor is not close-on-exec.
/// @param path cut to 107 bytes, with a warning, when it is longer (unix(7): sun_path)
[[nodiscard]] int unixConnect(std::string_view path);

} // namespace Vorl::Socket

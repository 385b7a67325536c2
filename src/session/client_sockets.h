#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Vorl::Session {

/// The daemon's address and port, from its own configuration file.
struct DaemonAddress {
    std::string address; ///< dotted quad
    std::uint16_t port = 0;
};

/// One TCP socket of the daemon, as the kernel counts it. Admission::counted() decides from the
/// bytes whether the client sees the picture.
struct ClientSocket {
    std::string address;        ///< the client's; 0.0.0.0 for a listener
    std::uint16_t port = 0;     ///< the client's; host byte order
    std::uint64_t sent = 0;     ///< bytes from daemon to client, acknowledged
    std::uint64_t received = 0; ///< bytes from client to daemon
};

/// The daemon's sockets that a process holds: its listener and its clients, but not clients that
/// wait to be accepted. Asks the kernel by inet_diag (sock_diag(7), as ss(8) does), which needs no
/// privilege.
/// @throws NotReady when the kernel cannot tell
[[nodiscard]] std::vector<ClientSocket> socketsOf(const DaemonAddress& daemon);

} // namespace Vorl::Session

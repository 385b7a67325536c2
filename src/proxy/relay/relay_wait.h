#pragma once

namespace Vorl {

/// The directions of a relay in which bytes can be moved now.
struct Traffic {
    bool fromClient = false;
    bool fromTransport = false;
};

/// Waits without a timeout for both sockets of a relay and for the daemon's stop event.
///
/// A direction counts only while its destination is writable: a client that reads slowly delays its
/// own picture, but not its keystrokes. Until then, the wait is for the destination to become
/// writable, or the source to reach its end.
///
/// A socket that reports a hang-up or an error and has no input, as one that is not connected, is
/// left out: poll(2) would report it again and again.
///
/// A send that waits for room is not ended here, but by JobTransfer::stop(), which shuts the
/// sockets down.
///
/// @return the directions with traffic, as soon as there are any. None when a destination has
///         become writable, when a socket has hung up, or when the daemon stops. Both when poll
///         fails: the steps then find the failure.
[[nodiscard]] Traffic waitForTraffic(int client, int transport);

} // namespace Vorl

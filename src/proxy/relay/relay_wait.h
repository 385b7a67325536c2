#pragma once

namespace Vorl {

/// The directions of a relay in which bytes can be moved now.
struct Traffic {
    bool fromClient = false;
    bool fromTransport = false;
};

/// Waits for both sockets of a relay at once.
///
/// A direction counts only while its destination is writable: a client that reads slowly delays its
/// own picture, but not its keystrokes. Until then, the wait is for the destination to become
/// writable, or the source to reach its end.
///
/// @return the directions with traffic, as soon as there are any. None after at most a second (so
///         that the caller can check its flags), when a destination has become writable, or when a
///         socket reports only a hang-up.
[[nodiscard]] Traffic waitForTraffic(int client, int transport);

} // namespace Vorl

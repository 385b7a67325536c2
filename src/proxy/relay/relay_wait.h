#pragma once

namespace Vorl {

/// Which directions of a relay have something to move that the other side can take.
struct Traffic {
    bool fromClient = false;
    bool fromTransport = false;
};

/// Waits for both sockets of a relay at once.
///
/// A direction counts only while its destination can take output: a client that reads slowly holds
/// up its own picture and not the keystrokes on their way to the desktop. Until then the wait is
/// for room at the destination, and for the end of the source.
///
/// @return as soon as there is traffic, and without any after at most a second (for the caller
///         to look at its flags), when room was found, or when a socket only reports a hang-up
[[nodiscard]] Traffic waitForTraffic(int client, int transport);

} // namespace Vorl

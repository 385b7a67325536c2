#pragma once

namespace Vorl {

/// Sets the buffer sizes of a relay's two sockets so that no transfer step delays the other
/// direction.
///
/// A step returns once its destination has accepted all bytes. So each send buffer is so large that
/// a socket which polls writable has room for a whole step. Otherwise a send would block on a slow
/// line or a slow shadow server, and delay keystrokes or frames. A receive buffer of fixed size
/// limits the memory of the client's upload.
///
/// Without CAP_NET_ADMIN the system's limits (net.core.rmem_max and wmem_max) apply, see socket(7).
/// A relay works with buffers of any size, so errors are ignored.
/// @param client, transport descriptors; they remain the caller's
void sizeRelayBuffers(int client, int transport);

} // namespace Vorl

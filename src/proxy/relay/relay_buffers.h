#pragma once

namespace Vorl {

/// Sizes the buffers of a relay's two sockets so that no transfer step holds up the other
/// direction.
///
/// A step receives all that waits on its source and returns once its destination has taken it. So
/// the client's upload is bounded by a receive buffer of fixed size, and each send buffer is large
/// enough that a socket which reports room has room for a whole step. Otherwise a send would wait
/// for a slow line, or for a slow shadow server, and keystrokes or frames with it.
///
/// Who may not exceed the system's limits (net.core.rmem_max and wmem_max) gets as much as they
/// allow. A relay works with buffers of any size.
void sizeRelayBuffers(int client, int transport);

} // namespace Vorl

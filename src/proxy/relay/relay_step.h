#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

namespace Vorl {

/// How a transfer step ended when it moved nothing and the relay is over. A result of 0 or more is
/// the number of bytes that were received and all sent.
enum RelayEnd : std::int64_t {
    relayException = -1,     ///< waiting for input or counting it failed
    relayRecvEndStream = -2, ///< the source reached its end
    relayRecvError = -3,     ///< receiving failed
    relaySendError = -4,     ///< sending failed
};

/// Moves what waits on the source to the destination: one receive of everything that is there, and
/// as many sends as it takes. Returns within about a millisecond when nothing waits.
///
/// A source that is ready without a byte to read has reached its end. A send that fails with EAGAIN
/// or EINTR is tried again at once: on a non-blocking destination that does not read, this spins.
///
/// @param buffer grows to the largest amount that ever waited, and keeps it
/// @param running if given and false when a socket call fails, the sockets were shut down to stop
///                this step: no error is logged
/// @return the number of bytes moved, or a RelayEnd. Failed socket calls are logged.
[[nodiscard]] std::int64_t jobTransferIter(int source, int destination,
                                           std::vector<std::uint8_t>& buffer,
                                           const std::atomic<bool>* running = nullptr);

/// The end in words for the log; "unknown" for a relay that was told to stop.
[[nodiscard]] const char* relayEndText(std::int64_t result);

} // namespace Vorl

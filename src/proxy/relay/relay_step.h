#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Vorl {

/// The results of a transfer step that end the relay. A result of 0 or more is the number of bytes
/// that were received and sent.
enum RelayEnd : std::int64_t {
    relayException = -1,     ///< waiting for input or counting it failed
    relayRecvEndStream = -2, ///< the source reached its end
    relayRecvError = -3,     ///< receiving failed
    relaySendError = -4,     ///< sending failed
};

/// Moves available bytes from the source to the destination: one receive of everything that is
/// available, and as many sends as needed. Returns within about a millisecond when there is nothing
/// to receive.
///
/// A source that is ready without a byte to read has reached its end. A send that fails with EAGAIN
/// or EINTR is tried again at once: on a non-blocking destination whose peer does not read, this
/// spins.
///
/// @param buffer resized to what is available; its memory grows to the largest amount so far
/// @param running if given and false, failing socket calls are not logged: the sockets were shut
///                down to stop this step
/// @return the number of bytes moved, or a RelayEnd. Failed socket calls are logged.
[[nodiscard]] std::int64_t jobTransferIter(int source, int destination,
                                           std::vector<std::uint8_t>& buffer,
                                           const std::atomic<bool>* running = nullptr);

/// The most bytes that one streamTransferIter() moves of input that is already there. A socket that
/// polls writable has room for them with the buffers of sizeRelayBuffers(), also where the system
/// limits those, so the send does not block.
inline constexpr std::size_t largestStreamStep = std::size_t{128} * 1024;

/// Does what jobTransferIter() does, for a relay's own two sockets: in bounded steps, so that
/// neither direction delays the other, and with fewer system calls. It receives first, and asks for
/// input and its size only when that found none: then it takes what has arrived within that
/// millisecond. Results and log lines are the same.
///
/// @param source a stream socket: of a larger datagram, the rest would be lost
/// @param buffer empty at first; its memory stays that of the largest step
[[nodiscard]] std::int64_t streamTransferIter(int source, int destination,
                                              std::vector<std::uint8_t>& buffer,
                                              const std::atomic<bool>* running);

/// The result as text for the log; "unknown" for a relay that was told to stop.
[[nodiscard]] const char* relayEndText(std::int64_t result);

} // namespace Vorl

#pragma once

#include "common/file_descriptor.h"
#include "common/transport_handle.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>

namespace Vorl {

/// Removes a socket file of an earlier run, which would be mistaken for the new one. Leaves other
/// kinds of files alone; ignores errors.
void removeStaleSocket(const std::filesystem::path& path);

/// How long a shadow server may take until it accepts connections on its socket.
inline constexpr std::chrono::seconds transportSocketLimit{5};

using TransportDeadline = std::chrono::steady_clock::time_point;

/// Waits until the shadow server has made its socket.
/// @return false after an error line when it has not by the deadline, or the daemon stops
[[nodiscard]] bool waitForTransportSocket(const std::filesystem::path& path,
                                          std::uint32_t sessionId, TransportDeadline deadline);

/// Connects to the shadow server's socket. Tries again until the deadline, the shadow server's end
/// or the daemon's stop: the file may exist before the shadow server listens on it, and a shortage
/// of descriptors or memory may pass.
/// @return empty after one error line when no attempt succeeded
[[nodiscard]] FileDescriptor connectToTransport(const std::string& path,
                                                const TransportHandle& transport,
                                                TransportDeadline deadline);

} // namespace Vorl

#pragma once

#include "common/file_descriptor.h"

#include <cstdint>
#include <filesystem>
#include <string>

namespace Vorl {

/// Removes a socket file of an earlier run, which would be mistaken for the new one. Leaves other
/// kinds of files alone; ignores errors.
void removeStaleSocket(const std::filesystem::path& path);

/// Waits up to five seconds until the shadow server has created its socket.
/// @return false after an error line when it has not, or the daemon stops
[[nodiscard]] bool waitForTransportSocket(const std::filesystem::path& path,
                                          std::uint32_t sessionId);

/// Connects to the shadow server's socket. Retries for a moment when refused, because the file may
/// exist before the shadow server listens on it, and when there is no free descriptor.
/// @return empty after an error line for each failed attempt
[[nodiscard]] FileDescriptor connectToTransport(const std::string& path);

} // namespace Vorl

#pragma once

#include "common/file_descriptor.h"

#include <cstdint>
#include <filesystem>
#include <string>

namespace Vorl {

/// Removes a socket that stands at the path: one of an earlier run would be taken for the new one.
/// A file of another kind is left alone; failures are ignored.
void removeStaleSocket(const std::filesystem::path& path);

/// Waits up to five seconds until the shadow server has made its socket.
/// @return false after an error line when it has not, or the daemon stops
[[nodiscard]] bool waitForTransportSocket(const std::filesystem::path& path,
                                          std::uint32_t sessionId);

/// Connects to the shadow server's socket. Tries again for a moment when refused, since the file
/// may exist before the shadow server listens on it, and when descriptors are short.
/// @return empty after an error line for each failed attempt
[[nodiscard]] FileDescriptor connectToTransport(const std::string& path);

} // namespace Vorl

#pragma once

#include "logger"

#include <cerrno>
#include <cstring>

namespace Vorl {

/// Logs that a system call failed, with the text and number of the current errno, which it
/// preserves.
/// @param function the reporting function
/// @param call the system call's name
inline void logCallFailed(const char* function, const char* call) {
    Syslog::error("%s: %s failed, error: %s, code: %d", function, call, strerror(errno), errno);
}

/// Same, but as a warning, for failures that the caller tolerates.
inline void warnCallFailed(const char* function, const char* call) {
    Syslog::warning("%s: %s failed, error: %s, code: %d", function, call, strerror(errno), errno);
}

} // namespace Vorl

#pragma once

#include "common/child_process.h"

#include <chrono>

namespace Vorl {

/// A running shadow server: its process id and the future of its wait status.
using TransportHandle = Utils::ChildHandle;

/// Whether the shadow server may still be signalled: once its future is ready, the process has been
/// reaped, and its id may belong to another process.
[[nodiscard]] bool transportRunning(const TransportHandle& transport);

/// Sends SIGTERM if the shadow server still runs.
void terminateTransport(const TransportHandle& transport);

/// Waits until a shadow server that was told to terminate has been reaped. One that is still
/// running after a grace period of three seconds is killed, with a warning: a caller that holds a
/// lock waits no longer than that. Afterwards the handle is empty.
/// @param since when it was told to terminate, which begins the grace period
/// @param caller the function name in log lines
void releaseTransport(TransportHandle& transport, std::chrono::steady_clock::time_point since,
                      const char* caller);

/// Same, for a shadow server that was not told to terminate: waits without a limit, unless the
/// daemon stops meanwhile, which terminates the shadow server.
void awaitTransport(TransportHandle& transport, const char* caller);

} // namespace Vorl

#pragma once

#include "common/child_process.h"

#include <chrono>

namespace Vorl {

/// A running shadow server: its process id and the future of its wait status.
using TransportHandle = Utils::ChildHandle;

/// Whether the shadow server is still there to be signalled: a process id whose future is ready has
/// been reaped and may be somebody else's by now.
[[nodiscard]] bool transportRunning(const TransportHandle& transport);

/// Sends SIGTERM if the shadow server still runs.
void terminateTransport(const TransportHandle& transport);

/// Waits until a shadow server that was told to end has been reaped. One that is still there after
/// a grace of three seconds is killed, with a warning: nobody who holds a lock waits longer.
/// Afterwards the handle is empty.
/// @param told when it was told, and the grace began
/// @param caller the name in log lines
void releaseTransport(TransportHandle& transport, std::chrono::steady_clock::time_point told,
                      const char* caller);

/// The same for a shadow server that was not told to end: waits however long it takes, unless the
/// daemon stops meanwhile, which ends the shadow server as well.
void awaitTransport(TransportHandle& transport, const char* caller);

} // namespace Vorl

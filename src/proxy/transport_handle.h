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

/// Waits until the shadow server has been reaped, however long that takes, but ends it when the
/// daemon stops meanwhile. Afterwards the handle is empty.
/// @param caller the name in log lines
void awaitTransport(TransportHandle& transport, const char* caller);

/// The same for a shadow server that was told to end: one that is still there after a grace of
/// three seconds is killed, with a warning. Nobody who holds a lock waits longer than that.
void releaseTransport(TransportHandle& transport, const char* caller);

} // namespace Vorl

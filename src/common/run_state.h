#pragma once

#include <atomic>

namespace Vorl {

/// True while the daemon runs. Set by startRunning(), cleared by requestStop(). Every thread polls
/// it.
extern std::atomic<bool> proxyRunning;

/// Opens the stop event and sets proxyRunning. Main thread, once the session service has answered.
/// @throws std::system_error when there is no descriptor for the event
void startRunning();

/// Clears proxyRunning and signals the stop event. A termination signal, the session service's stop
/// signal, the loss of the bus and ProxyConnection's destructor call it. Any thread, and signal
/// handlers: it is async-signal-safe, see signal-safety(7).
/// @return false when the daemon was not running any more
bool requestStop() noexcept;

/// An event descriptor for poll(2): readable from the first requestStop() on, so that a thread can
/// wait for its input and for the stop without a timeout. Stays open, and is never read. Negative,
/// which poll(2) ignores, before startRunning().
[[nodiscard]] int stopEvent() noexcept;

} // namespace Vorl

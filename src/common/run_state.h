#pragma once

#include <atomic>

namespace Vorl {

/// True while the daemon runs. Set by ProxyConnection::start() once the session service has
/// answered; cleared by a termination signal, by the session service's stop signal, when the bus is
/// lost, and by ProxyConnection's destructor. Every thread polls it.
extern std::atomic<bool> proxyRunning;

} // namespace Vorl

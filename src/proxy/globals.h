#pragma once

#include "bus/bus_loop.h"

#include <atomic>

namespace Vorl {

/// True while the daemon runs. Set by ProxyConnection::start() once the session service has
/// answered; cleared by a termination signal, by the session service's stop signal, when the bus is
/// lost, and by ProxyConnection's destructor. Every thread polls it.
extern std::atomic<bool> proxyRunning;

/// The bus dispatcher: its enter() is the daemon's main loop, its leave() ends it.
extern BusLoop proxyDispatcher;

} // namespace Vorl

#pragma once

#include "bus/bus_loop.h"

namespace Vorl {

/// The bus dispatcher: its enter() is the daemon's main loop, its leave() ends it. Constructed
/// before main and destroyed at process exit.
extern BusLoop proxyDispatcher;

} // namespace Vorl

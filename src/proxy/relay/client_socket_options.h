#pragma once

#include "common/json_config.h"

namespace Vorl {

/// Sets the options of a freshly accepted client socket: keepalive as configured, and TCP_NODELAY.
/// If a keepalive option cannot be set, there is a warning, and the connection continues.
/// @throws Json::LogicError when a configured value has the wrong type
void setClientSocketOptions(int client, const JsonConfig& settings);

} // namespace Vorl

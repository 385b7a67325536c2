#pragma once

#include "common/json_config.h"

namespace Vorl {

/// Sets the options of a freshly accepted client socket: keepalive as configured, and no delay for
/// small packets. A refused keepalive option costs a warning, not the connection.
/// @throws Json::LogicError when a configured value has the wrong type
void setClientSocketOptions(int client, const JsonConfig& settings);

} // namespace Vorl

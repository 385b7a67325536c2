#pragma once

#include "common/json_config.h"

#include <list>
#include <string>

namespace Vorl {

/// NAME=value entries for the shadow server's environment.
/// @throws Json::LogicError when a value has the wrong type
[[nodiscard]] std::list<std::string> transportEnvironment(const JsonConfig& settings,
                                                          const JsonConfig& session);

} // namespace Vorl

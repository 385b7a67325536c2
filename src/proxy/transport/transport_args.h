#pragma once

#include "common/json_config.h"

#include <list>
#include <string>

namespace Vorl {

/// The shadow server's arguments, without the program's name: the configured template with its
/// placeholders filled, then the switches for Kerberos, security and the log level. Writes the SAM
/// file (readable by this account alone) when the session wants network level authentication.
///
/// @param builtIn the program is the one that came with the daemon and knows its own options
/// @throws vorl_error("prepareX11RdpArgs") after an error line: a value holds its own placeholder,
///         or the SAM file could not be written whole
/// @throws Json::LogicError when a value has the wrong type
[[nodiscard]] std::list<std::string> transportArguments(const JsonConfig& settings,
                                                        const JsonConfig& session,
                                                        const std::string& socketPath,
                                                        const std::string& samPath, bool builtIn);

} // namespace Vorl

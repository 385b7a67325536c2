#pragma once

#include "common/json_config.h"
#include "common/owned_file.h"

#include <list>
#include <string>

namespace Vorl {

/// The shadow server's arguments, without the program's name: the configured template with its
/// placeholders replaced, then the switches for Kerberos, security and the log level. Writes the
/// SAM file (readable for this account only) when the session uses network level authentication
/// (NLA). A SAM file that cannot be created is left out without a log line.
///
/// @param samFile where the SAM file goes; notes that it was written
/// @param builtIn the program is the daemon's own shadow server, which knows additional options
/// @throws vorl_error("prepareX11RdpArgs") after an error line: a value contains its own
///         placeholder, or the SAM file could not be written completely
/// @throws Json::LogicError when a value has the wrong type
[[nodiscard]] std::list<std::string> transportArguments(const JsonConfig& settings,
                                                        const JsonConfig& session,
                                                        const std::string& socketPath,
                                                        OwnedFile& samFile, bool builtIn);

} // namespace Vorl

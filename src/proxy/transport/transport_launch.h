#pragma once

#include "common/json_config.h"
#include "common/transport_handle.h"

#include <cstdint>
#include <filesystem>
#include <list>
#include <string>

namespace Vorl {

/// The command that starts a shadow server.
struct TransportCommand {
    std::string program;
    std::list<std::string> arguments;   // without the program's name
    std::list<std::string> environment; // NAME=value, overrides the daemon's own
};

/// The shadow server's program: the configured one or, with a warning, the first of the usual
/// places where it exists.
/// @throws vorl_error("requestRdpTransport") after an error line when there is none
/// @throws Json::LogicError when the configured path is not a string
[[nodiscard]] std::string findTransportProgram(const JsonConfig& settings);

/// Whether the program is installed in the daemon's own directory: such a shadow server takes the
/// Kerberos and log level options.
[[nodiscard]] bool isBuiltInTransport(const std::string& program);

/// Starts the shadow server under the daemon's own account.
/// @param display the session's X display, for the log line
/// @param logFile receives its standard output and error
/// @throws vorl_error("runChildProcess") after an error line when it cannot be started
[[nodiscard]] TransportHandle launchTransport(const TransportCommand& command, int display,
                                              std::uint32_t sessionId,
                                              const std::filesystem::path& logFile);

} // namespace Vorl

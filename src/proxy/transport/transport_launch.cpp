#include "proxy/transport/transport_launch.h"

#include "common/error.h"
#include "common/strings.h"
#include "logger"

#include <system_error>

namespace Vorl {

namespace fs = std::filesystem;

namespace {

constexpr const char* function = "requestRdpTransport";
constexpr const char* builtInDirectory = "/usr/libexec/vorl/";
constexpr const char* defaultProgram = "/usr/libexec/vorl/freerdp-shadow-cli";

bool exists(const fs::path& path) {
    std::error_code ignored;
    return fs::exists(path, ignored);
}

} // namespace

std::string findTransportProgram(const JsonConfig& settings) {
    std::string configured = settings.getString("x11rdp:path", defaultProgram);
    if (exists(configured))
        return configured;
    for (const char* usual :
         {defaultProgram, "/usr/bin/freerdp-shadow-cli", "/usr/local/bin/freerdp-shadow-cli"}) {
        if (exists(usual)) {
            Syslog::warning("%s: rdp transport changed to: `%s'", function, usual);
            return usual;
        }
    }
    Syslog::error("%s: rdp transport not found, check config option: `%s'", function,
                  "x11rdp:path");
    throw vorl_error(function);
}

bool isBuiltInTransport(const std::string& program) {
    return program.starts_with(builtInDirectory);
}

TransportHandle launchTransport(const TransportCommand& command, int display,
                                std::uint32_t sessionId, const fs::path& logFile) {
    Syslog::debug("%s: display: %d, session id: %u, cmd: %s, args: [ %s ]", function, display,
                  sessionId, command.program.c_str(), Utils::joinList(command.arguments).c_str());
    return Utils::runChildProcessBack(command.program, command.arguments, command.environment,
                                      nullptr, logFile.c_str());
}

} // namespace Vorl

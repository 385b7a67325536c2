#include "common/error.h"
#include "common/strings.h"
#include "proxy/proxy_connection.h"
#include "proxy/transport_args.h"
#include "proxy/work_directory.h"

#include <system_error>

namespace Vorl {

namespace fs = std::filesystem;

namespace {

constexpr const char* defaultProgram = "/usr/libexec/vorl/freerdp-shadow-cli";

bool exists(const fs::path& path) {
    std::error_code ignored;
    return fs::exists(path, ignored);
}

/// The shadow server's program: the configured one, or the first of the usual places where one is.
std::string findProgram(const JsonConfig& settings) {
    std::string configured = settings.getString("x11rdp:path", defaultProgram);
    if (exists(configured))
        return configured;
    for (const char* usual :
         {defaultProgram, "/usr/bin/freerdp-shadow-cli", "/usr/local/bin/freerdp-shadow-cli"}) {
        if (exists(usual)) {
            Syslog::warning("%s: rdp transport changed to: `%s'", "requestRdpTransport", usual);
            return usual;
        }
    }
    Syslog::error("%s: rdp transport not found, check config option: `%s'", "requestRdpTransport",
                  "x11rdp:path");
    throw vorl_error("requestRdpTransport");
}

} // namespace

std::list<std::string> ProxyConnection::prepareX11RdpArgs(const std::string& socketPath,
                                                          const std::string& samPath,
                                                          const JsonConfig& session,
                                                          bool builtIn) const {
    return transportArguments(*configuration(), session, socketPath, samPath, builtIn);
}

TransportHandle ProxyConnection::requestRdpTransport(const std::string& socketPath,
                                                     const std::string& samPath,
                                                     const std::uint32_t& sessionId,
                                                     std::uint64_t ordinal) {
    Syslog::info("%s: session id: %u", "requestRdpTransport", sessionId);
    const JsonConfigString session(vorlSessionInfoJson(sessionId));
    const auto settings = configuration();
    const std::string program = findProgram(*settings);
    const bool builtIn = program.starts_with("/usr/libexec/vorl/");

    const std::list<std::string> arguments =
        prepareX11RdpArgs(socketPath, samPath, session, builtIn);
    const std::list<std::string> environment = transportEnvironment(*settings, session);
    Syslog::debug("%s: display: %d, session id: %u, cmd: %s, args: [ %s ]", "requestRdpTransport",
                  session.getInteger("display"), sessionId, program.c_str(),
                  Utils::joinList(arguments).c_str());

    const fs::path logFile =
        workDirectory(home) /
        Utils::joinString("rdp_transport_", session.getInteger("uid"), "_", ordinal, ".log");
    return Utils::runChildProcessBack(program, arguments, environment, nullptr, logFile.c_str());
}

} // namespace Vorl

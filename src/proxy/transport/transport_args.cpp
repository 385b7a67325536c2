#include "proxy/transport/transport_args.h"

#include "common/error.h"
#include "common/strings.h"
#include "logger"
#include "proxy/transport/sam_file.h"

#include <filesystem>
#include <string_view>
#include <system_error>

namespace Vorl {

namespace {

constexpr const char* function = "prepareX11RdpArgs";

/// The entry with the placeholder replaced. A value that would create the placeholder again, alone
/// or together with the text around it, is refused: the replacement would never end.
std::string fill(const std::string& entry, std::string_view placeholder, const std::string& value) {
    std::string once;
    std::string_view rest = entry;
    for (auto at = rest.find(placeholder); at != std::string_view::npos;
         at = rest.find(placeholder)) {
        once.append(rest.substr(0, at)).append(value);
        rest.remove_prefix(at + placeholder.size());
    }
    once.append(rest);
    if (once.find(placeholder) != std::string::npos) {
        Syslog::error("%s: launch refused, value brings its own placeholder back: `%s'", function,
                      value.c_str());
        throw vorl_error(function);
    }
    return Utils::stringReplace(entry, placeholder, value);
}

const char* transportLogLevel(const JsonConfig& settings) {
    if (settings.getBoolean("transport:debug"))
        return "DEBUG";
    const bool chatty =
        Syslog::isDebugLevel(DebugLevel::Debug) || Syslog::isDebugLevel(DebugLevel::Info);
    return chatty ? "INFO" : "ERROR";
}

} // namespace

std::list<std::string> transportArguments(const JsonConfig& settings, const JsonConfig& session,
                                          const std::string& socketPath, OwnedFile& samFile,
                                          bool builtIn) {
    std::list<std::string> arguments = settings.getStringList("x11rdp:args");
    if (arguments.empty())
        arguments = {"/ipc-socket:%{socket}", "/max-connections:1"};
    for (std::string& argument : arguments) {
        argument = fill(argument, "%{socket}", socketPath);
        argument = Utils::stringReplace(argument, "%{display}", session.getInteger("display"));
        argument = fill(argument, "%{authfile}", session.getString("xauthfile"));
        argument = fill(argument, "%{home}", session.getString("home"));
    }

    if (builtIn && settings.hasValue("kerberos:keytab")) {
        const std::string keytab = settings.getString("kerberos:keytab");
        std::error_code ignored;
        if (std::filesystem::exists(keytab, ignored))
            arguments.push_back("/keytab:" + keytab);
        else
            Syslog::warning("%s: keytab not exists, path: `%s'", function, keytab.c_str());
    }

    arguments.emplace_back(session.getBoolean("sec:rdp") ? "+sec-rdp" : "-sec-rdp");
    if (session.getBoolean("sec:nla")) {
        const std::string ntlm = session.getString("ntlm");
        arguments.emplace_back("+sec-nla");
        if (!ntlm.empty() && writeSamFile(samFile, ntlm))
            arguments.push_back("/sam-file:" + samFile.path());
    } else {
        arguments.emplace_back("-sec-nla");
    }
    arguments.emplace_back(session.getBoolean("sec:tls") ? "+sec-tls" : "-sec-tls");
    if (session.getBoolean("sec:auth", true)) // there is no negative form
        arguments.emplace_back("+auth");
    if (builtIn)
        arguments.push_back(std::string("/log-level:") + transportLogLevel(settings));
    return arguments;
}

} // namespace Vorl

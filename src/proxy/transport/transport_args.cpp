#include "proxy/transport/transport_args.h"

#include "common/error.h"
#include "common/strings.h"
#include "logger"
#include "proxy/transport/sam_file.h"

#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

namespace Vorl {

namespace {

constexpr const char* function = "prepareX11RdpArgs";

/// The entry with the placeholder replaced, as stringReplace() does it. A value that contains the
/// placeholder, or creates it again and again together with the text around it, is refused: the
/// replacement would not end.
std::string fill(std::string entry, std::string_view placeholder, const std::string& value) {
    const bool comesBack = value.find(placeholder) != std::string::npos;
    // An expansion that ends takes at most one replacement for each character of the entry. Only a
    // value that was constructed for it takes more.
    const std::size_t limit = comesBack ? 1 : entry.size();
    std::size_t replaced = 0;
    for (auto at = entry.find(placeholder); at != std::string::npos; at = entry.find(placeholder)) {
        if (replaced++ == limit) {
            Syslog::error("%s: launch refused, %s still there after %u replacements, check "
                          "x11rdp:args and the value: `%s'",
                          function, placeholder.data(), static_cast<unsigned>(limit),
                          value.c_str());
            throw vorl_error(function);
        }
        entry.replace(at, placeholder.size(), value);
    }
    return entry;
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
        argument = fill(std::move(argument), "%{socket}", socketPath);
        argument = Utils::stringReplace(argument, "%{display}", session.getInteger("display"));
        argument = fill(std::move(argument), "%{authfile}", session.getString("xauthfile"));
        argument = fill(std::move(argument), "%{home}", session.getString("home"));
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

#include "proxy/transport_args.h"

#include "common/call_failure.h"
#include "common/descriptor.h"
#include "common/error.h"
#include "common/strings.h"
#include "logger"

#include <filesystem>
#include <string_view>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace Vorl {

namespace {

constexpr const char* function = "prepareX11RdpArgs";

/// The entry with the placeholder filled. A value that would bring the placeholder back, by itself
/// or together with the text around it, is refused: replacing it would never end.
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

/// @return false, without a message, when the file cannot be opened
/// @throws vorl_error after an error line when it could not be written whole: the shadow server
///         must not see half of it
bool writeSamFile(const std::string& path, const std::string& line) {
    // A new file each time: what stands there may be an earlier connection's, or planted.
    unlink(path.c_str());
    const Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!file)
        return false;
    const std::string text = line + '\n';
    errno = ENOSPC; // what a write that is cut short leaves unsaid
    if (write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        logCallFailed(function, "write");
        unlink(path.c_str());
        throw vorl_error(function);
    }
    return true;
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
                                          const std::string& socketPath, const std::string& samPath,
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
        if (!ntlm.empty() && writeSamFile(samPath, ntlm))
            arguments.push_back("/sam-file:" + samPath);
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

std::list<std::string> transportEnvironment(const JsonConfig& settings, const JsonConfig& session) {
    std::list<std::string> environment{
        Utils::joinString("DISPLAY=:", session.getInteger("display")),
        "XAUTHORITY=" + session.getString("xauthfile"),
        "FREERDP_STRONG_SESSION_CHECK=1",
        "SESSION_USER=" + session.getString("username"),
    };
    const std::string realm = settings.getString("kerberos:realm");
    if (settings.getBoolean("check:domain") && !realm.empty())
        environment.push_back("SESSION_DOMAIN=" + realm);
    if (settings.getBoolean("transport:shm")) {
        environment.emplace_back("FREERDP_SHM_ENABLED=1");
        environment.emplace_back("FREERDP_SHM_ANY=1");
    }
    if (settings.hasValue("transport:fps")) {
        environment.push_back(
            Utils::joinString("FREERDP_FRAME_RATE=", settings.getInteger("transport:fps")));
    }
    return environment;
}

} // namespace Vorl

// The session description: arbitrary text from the bus, turned into the shadow server's arguments
// and environment. The input up to the first NUL is the second entry of the argument template.
#include "common/error.h"
#include "common/json_config.h"
#include "logger"
#include "proxy/transport/transport_args.h"
#include "proxy/transport/transport_environment.h"

#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Vorl::Syslog::setDebugLevel(Vorl::DebugLevel::Quiet);
    const std::string input(reinterpret_cast<const char*>(data), size);
    const auto end = input.find('\0');
    Json::Value settings(Json::objectValue);
    settings["x11rdp:args"].append("/ipc-socket:%{socket}");
    settings["x11rdp:args"].append(input.substr(0, end));
    settings["kerberos:realm"] = "REALM";
    settings["check:domain"] = true;
    const Vorl::JsonConfig configuration(settings);
    const std::string text = end == std::string::npos ? input : input.substr(end + 1);
    try {
        const Vorl::JsonConfigString session(text);
        // The SAM path cannot be opened: writing that file is not tested here.
        (void)Vorl::transportArguments(configuration, session, "/run/vorl/proxy_7_0", "/", true);
        (void)Vorl::transportEnvironment(configuration, session);
    } catch (const Json::Exception&) {  // not JSON, or a value of another type
    } catch (const Vorl::vorl_error&) { // no object, or a value that contains its own placeholder
    }
    return 0;
}

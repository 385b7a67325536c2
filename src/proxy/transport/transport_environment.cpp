#include "proxy/transport/transport_environment.h"

#include "common/strings.h"

namespace Vorl {

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

#include "session/login_sessions.h"

#include "session/not_ready.h"

#include <cstdlib>
#include <cstring>
#include <optional>

#include <pwd.h>
#include <systemd/sd-login.h>

namespace Vorl::Session {

namespace {

using Getter = int (*)(const char*, char**);

// Empty for what logind does not know, also because the session has gone meanwhile.
std::string get(Getter getter, const char* id) {
    char* text = nullptr;
    if (getter(id, &text) < 0 || text == nullptr)
        return {};
    std::string result = text;
    std::free(text);
    return result;
}

bool isGraphical(const std::string& type) {
    return type == "x11" || type == "wayland" || type == "mir";
}

std::optional<LoginSession> read(const char* id) {
    LoginSession session{.id = id,
                         .user = {},
                         .home = {},
                         .type = get(sd_session_get_type, id),
                         .display = get(sd_session_get_display, id)};
    const std::string state = get(sd_session_get_state, id);
    session.active = state == "active";
    if (!isGraphical(session.type) || get(sd_session_get_class, id) != "user" ||
        (state != "active" && state != "online") || sd_session_get_uid(id, &session.uid) < 0)
        return {};
    const passwd* account = getpwuid(session.uid); // one thread
    if (account == nullptr)
        return {};
    session.user = account->pw_name;
    session.home = account->pw_dir;
    return session;
}

} // namespace

std::vector<LoginSession> graphicalSessions() {
    char** ids = nullptr;
    const int count = sd_get_sessions(&ids);
    if (count < 0)
        throw NotReady(std::string("logind's sessions cannot be read: ") + strerror(-count));
    std::vector<LoginSession> sessions;
    for (int i = 0; i < count; ++i) {
        if (auto session = read(ids[i]))
            sessions.push_back(std::move(*session));
        std::free(ids[i]);
    }
    std::free(static_cast<void*>(ids));
    return sessions;
}

} // namespace Vorl::Session

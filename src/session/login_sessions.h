#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

namespace Vorl::Session {

/// Somebody's graphical session, as logind has it.
struct LoginSession {
    std::string id;
    uid_t uid = 0;
    std::string user;
    std::string home;
    std::string type;    ///< "x11", "wayland" or "mir"
    std::string display; ///< such as ":0"; may be empty (gdm)
    bool active = false; ///< in the foreground of its seat
};

/// For a person: such as "alice's session 3".
[[nodiscard]] inline std::string nameOf(const LoginSession& session) {
    return session.user + "'s session " + session.id;
}

/// The graphical sessions of users that are "active" or "online".
///
/// Not those that are "closing": an ended session with a leftover process keeps its display, which
/// may be the greeter's by then.
[[nodiscard]] std::vector<LoginSession> graphicalSessions();

} // namespace Vorl::Session

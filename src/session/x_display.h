#pragma once

#include "session/login_sessions.h"

#include <filesystem>

namespace Vorl::Session {

/// The X display of a session, and where its X server has its authority file.
struct XDisplay {
    int number = 0;
    std::filesystem::path authority;
    uid_t serverUid = 0;
};

/// Finds it by asking the X server itself: whoever listens on /tmp/.X11-unix/XN (SO_PEERCRED,
/// unix(7)) has the file's name in its command line, after "-auth". The session's processes cannot
/// be asked: reading another's environment takes more rights than the service has.
///
/// @throws NotReady when there is no such server, or the socket is that of a stranger: neither
///         root's nor the session's user's
[[nodiscard]] XDisplay findDisplay(const LoginSession& session);

/// Copies the cookies of the display's authority file to a file that the daemon's account can read,
/// which is this process's group (mode 0640). The copy holds for any host name. Replaced whole.
///
/// @throws NotReady when the file is missing, has no cookie, or is neither the session's user's
///         nor the X server's
void copyCookies(const XDisplay& display, const LoginSession& session,
                 const std::filesystem::path& copy);

} // namespace Vorl::Session

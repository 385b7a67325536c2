#include "session/desktop_search.h"

#include "session/not_ready.h"
#include "session/password_file.h"

#include <algorithm>
#include <cstring>

namespace Vorl::Session {

namespace {

FoundDesktop examine(const LoginSession& session, const std::filesystem::path& passwordFile) {
    if (session.type != "x11")
        throw NotReady(nameOf(session) + " is one of Wayland, which "
                                         "cannot be shown: choose an X11 session when logging in");
    std::string line = findCredentials(passwordFile, session.user);
    explicit_bzero(line.data(), line.size());
    return {session, findDisplay(session)};
}

} // namespace

SearchResult searchDesktop(std::vector<LoginSession> sessions,
                           const std::filesystem::path& passwordFile, const std::string& current) {
    SearchResult result;
    std::ranges::stable_sort(sessions, std::ranges::greater{}, [&](const LoginSession& session) {
        return 2 * int{session.active} + int{session.id == current};
    });
    for (const LoginSession& session : sessions) {
        try {
            FoundDesktop desktop = examine(session, passwordFile);
            if (!result.found)
                result.found = std::move(desktop);
            else
                result.problems.push_back(nameOf(session) +
                                          " has to wait: the port is for that of " +
                                          result.found->session.user);
        } catch (const NotReady& reason) {
            result.problems.emplace_back(reason.what());
        }
    }
    if (sessions.empty())
        result.problems.emplace_back("nobody is logged in at a graphical session of this host");
    return result;
}

} // namespace Vorl::Session

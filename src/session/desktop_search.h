#pragma once

#include "session/x_display.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace Vorl::Session {

/// A session whose desktop can be shown.
struct FoundDesktop {
    LoginSession session;
    XDisplay display;
};

struct SearchResult {
    std::optional<FoundDesktop> found;
    std::vector<std::string> problems; ///< for each session that cannot be shown, why; or why none
};

/// Looks for the desktop that clients are to be let into: of the sessions whose user has a password
/// line and whose X server answers, one in the foreground, else the current one, else any.
/// @param current the id of the session that the port is for now, or empty
[[nodiscard]] SearchResult searchDesktop(std::vector<LoginSession> sessions,
                                         const std::filesystem::path& passwordFile,
                                         const std::string& current);

} // namespace Vorl::Session

#pragma once

#include <string>

namespace Vorl::Session {

/// Asks for a new password: twice and without echo on a terminal, else one line of standard input.
/// Ctrl-C leaves the terminal as it was.
/// @throws std::runtime_error when there is none, or the two differ
[[nodiscard]] std::string askForPassword(const std::string& user);

} // namespace Vorl::Session

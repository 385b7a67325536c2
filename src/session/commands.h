#pragma once

#include <filesystem>
#include <string>

/// The commands that a person types. Each prints, and returns the exit status; failures throw
/// std::runtime_error with a sentence.
namespace Vorl::Session::Commands {

/// Asks for the user's password and stores its hash, or removes the hash.
int password(const std::filesystem::path& configuration, const std::string& user, bool remove);
/// 0 when a session can be reached.
int status(bool asJson);
/// Prints what a client is started with, or an .rdp file.
int ticket(const std::string& user, bool asRdpFile);

} // namespace Vorl::Session::Commands

#pragma once

#include <filesystem>
#include <string>

namespace Vorl::Session {

/// The file of NTLM credentials, one line for a user: "alice:::HASH:::". A hash is worth as much as
/// the password, so the file must belong to this process's account (root) and have mode 0600.
///
/// @throws NotReady with what to do, when it is not so, or the user has no line
[[nodiscard]] std::string findCredentials(const std::filesystem::path& file,
                                          const std::string& user);

/// Replaces the user's line, or takes it away when the new one is empty. Two at a time wait for
/// each other.
/// @throws NotReady as above, std::system_error when the file cannot be written
void storeCredentials(const std::filesystem::path& file, const std::string& user,
                      const std::string& line);

/// The user's line for a password: its hash is the MD4 of the password in UTF-16LE
/// (MS-NLMP, 3.3.1).
/// @param password in UTF-8
/// @throws std::invalid_argument when the password is empty or is not UTF-8
[[nodiscard]] std::string makeCredentials(const std::string& user, const std::string& password);

} // namespace Vorl::Session

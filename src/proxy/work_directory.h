#pragma once

#include <filesystem>

namespace Vorl {

/// The daemon's home directory: the value of HOME, else /tmp. Warns of one that belongs neither to
/// root nor to the daemon's account.
/// @throws vorl_error("ProxyConnection") after an error line when it does not exist
/// @throws std::filesystem::filesystem_error when that cannot be determined
[[nodiscard]] std::filesystem::path findHomeDirectory();

/// Creates the work directory, with mode 0700, if it is missing: the directory below the home
/// directory that holds the shadow servers' sockets, SAM files and logs. Refuses one that is a link
/// or belongs to another account, which could read and replace the files in it. Takes from an
/// existing one, with a notice, what lets group or others write to it. Main thread, before any
/// other.
/// @throws vorl_error("ProxyConnection") after an error line when it is refused
/// @throws std::filesystem::filesystem_error when it cannot be created
void makeWorkDirectory(const std::filesystem::path& home);

/// The work directory's path.
[[nodiscard]] std::filesystem::path workDirectory(const std::filesystem::path& home);

} // namespace Vorl

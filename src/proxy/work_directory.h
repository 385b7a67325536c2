#pragma once

#include <filesystem>

namespace Vorl {

/// The daemon's home directory: the value of HOME, else /tmp.
/// @throws vorl_error("ProxyConnection") after an error line when it does not exist
/// @throws std::filesystem::filesystem_error when that cannot be found out
[[nodiscard]] std::filesystem::path findHomeDirectory();

/// The directory below the home directory that holds the shadow servers' sockets, SAM files and
/// logs; made when it is missing. One that is a link or belongs to another account is refused:
/// whoever made it could read and exchange the files in it.
/// @throws vorl_error("ProxyConnection") after an error line when it is refused
/// @throws std::filesystem::filesystem_error when it cannot be made
void makeWorkDirectory(const std::filesystem::path& home);

/// The work directory's path.
[[nodiscard]] std::filesystem::path workDirectory(const std::filesystem::path& home);

} // namespace Vorl

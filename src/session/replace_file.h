#pragma once

#include <filesystem>
#include <string>

#include <sys/types.h>

namespace Vorl::Session {

/// Writes a file aside, to disk, and renames it, so that a reader finds the old or the new content.
/// @param mode of the file, whatever the umask
/// @throws std::system_error, whose text names the file
void replaceFile(const std::filesystem::path& path, const std::string& content, mode_t mode);

} // namespace Vorl::Session

#pragma once

#include "common/owned_file.h"

#include <string>

namespace Vorl {

/// Writes the line into a new SAM file, readable by this account alone, and notes that it belongs
/// to the connection. What is at the path is removed: it may be an earlier connection's file, or
/// planted.
/// @return false, without a message, when the file cannot be created
/// @throws vorl_error("prepareX11RdpArgs") after an error line when it could not be written whole:
///         the shadow server must not read half a line
[[nodiscard]] bool writeSamFile(OwnedFile& samFile, const std::string& line);

} // namespace Vorl

#pragma once

#include <string>

namespace Vorl {

/// Writes the line into a new SAM file, readable by this account alone. What stands at the path is
/// removed: it may be an earlier connection's file, or planted.
/// @return false, without a message, when the file cannot be created
/// @throws vorl_error("prepareX11RdpArgs") after an error line when it could not be written whole:
///         the shadow server must not read half a line
[[nodiscard]] bool writeSamFile(const std::string& path, const std::string& line);

} // namespace Vorl

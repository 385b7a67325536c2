#pragma once

#include "common/owned_file.h"

#include <string>

namespace Vorl {

/// Writes the line into a new SAM file, readable for this account only, and notes in `samFile` that
/// the connection owns it. An existing file is removed first: it may belong to an earlier
/// connection, or be planted. The connection's JobTransfer removes it at the end (see OwnedFile).
/// @return false, without a message, when the file cannot be created
/// @throws vorl_error("prepareX11RdpArgs") after an error line when it could not be written
///         completely: the shadow server must not read a partial line
[[nodiscard]] bool writeSamFile(OwnedFile& samFile, const std::string& line);

} // namespace Vorl

#pragma once

#include "session/admission.h"

namespace Vorl::Session {

/// Writes the journal's line about a client that has been shown the picture, has gone, or has gone
/// without it. MESSAGE_ID and fields are listed in vorl_session(8); programs match on them.
void audit(const Action& action, Time now);

} // namespace Vorl::Session

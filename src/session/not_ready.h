#pragma once

#include <stdexcept>

namespace Vorl::Session {

/// Why nobody can be let in at present. The text is one sentence for a person that names the thing
/// and what to do; it goes to the journal and to "vorl_session status" as it is.
class NotReady : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace Vorl::Session

#pragma once

#include <stdexcept>

namespace Vorl {

/// The program's exception. Its message is the name of the operation that failed ("hasInput");
/// the reason has been logged by the time it is thrown.
class vorl_error : public std::runtime_error { // NOLINT(readability-identifier-naming)
public:
    using std::runtime_error::runtime_error;
};

} // namespace Vorl

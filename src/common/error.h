#pragma once

#include <stdexcept>

namespace Vorl {

/// The daemon's exception type. Its message is the name of the operation that failed ("hasInput");
/// the reason is logged before it is thrown.
class vorl_error : public std::runtime_error { // NOLINT(readability-identifier-naming)
public:
    using std::runtime_error::runtime_error;
};

} // namespace Vorl

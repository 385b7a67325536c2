#pragma once

#include <string>
#include <string_view>

namespace Vorl {

/// The version banner of a program of this product, such as
/// "VORL PROXY v.2.1.5 build(202507220750)" for "PROXY".
[[nodiscard]] std::string productVersion(std::string_view name);

} // namespace Vorl

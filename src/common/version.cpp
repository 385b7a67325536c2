#include "common/version.h"

#include "common/strings.h"

namespace Vorl {

std::string productVersion(std::string_view name) {
    constexpr int major = 2;
    constexpr int minor = 1;
    constexpr std::string_view patch = "5";
    return Utils::joinString("VORL ", name, " v.", major, ".", minor, ".", patch, " ", "build(",
                             VORL_BUILD_STAMP, ")");
}

} // namespace Vorl

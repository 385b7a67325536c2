#include "common/version.h"

#include "common/strings.h"

namespace Vorl {

std::string productVersion(std::string_view name) {
    return Utils::joinString("VORL ", name, " v.", VORL_VERSION, " build(", VORL_BUILD_STAMP, ")");
}

} // namespace Vorl

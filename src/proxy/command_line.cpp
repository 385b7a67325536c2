#include "proxy/command_line.h"

#include <string_view>

namespace Vorl {

std::optional<CommandLine> parseCommandLine(std::span<char*> arguments) {
    CommandLine result;
    for (std::size_t at = 0; at < arguments.size(); ++at) {
        const std::string_view option = arguments[at];
        const bool hasValue = at + 1 < arguments.size();
        if (option == "--background") {
            result.background = true;
        } else if (option == "--config" && hasValue) {
            result.configPath = arguments[++at];
        } else if (option == "--user" && hasValue) {
            result.user = arguments[++at];
        } else {
            return std::nullopt;
        }
    }
    return result;
}

std::string usageText(const std::string& program) {
    // Deliberately no space after the program's name: scripts compare this line.
    return "usage: " + program + "--background --config <path> --user <user>\n" +
           "manual: man vorl_proxy\n";
}

} // namespace Vorl

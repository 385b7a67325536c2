#pragma once

#include <optional>
#include <span>
#include <string>

namespace Vorl {

/// What the command line asks for.
struct CommandLine {
    /// Relative to the directory in which the daemon was started.
    std::string configPath = "vorl_proxy.json";
    /// Account to switch to when started by root; empty: none.
    std::string user;
    bool background = false;
};

/// Reads the arguments after the program's name. The last of a repeated option counts.
/// @return nothing for an unknown argument or an option without its value
[[nodiscard]] std::optional<CommandLine> parseCommandLine(std::span<char*> arguments);

/// @param program the program's name as it was called
[[nodiscard]] std::string usageText(const std::string& program);

} // namespace Vorl

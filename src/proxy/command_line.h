#pragma once

#include <optional>
#include <span>
#include <string>

namespace Vorl {

/// The options of the command line.
struct CommandLine {
    /// Relative to the directory in which the daemon was started.
    std::string configPath = "vorl_proxy.json";
    /// Account to switch to when started by root; empty for none.
    std::string user;
    bool background = false;
};

/// Parses the arguments after the program's name. If an option is repeated, the last one wins.
/// @return std::nullopt for an unknown argument or an option without its value
[[nodiscard]] std::optional<CommandLine> parseCommandLine(std::span<char*> arguments);

/// @param program argv[0]
[[nodiscard]] std::string usageText(const std::string& program);

} // namespace Vorl

#include "session/commands.h"
#include "session/service.h"

#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

namespace {

constexpr const char* usage = R"(usage: vorl_session [--config FILE] [COMMAND]
Without a command: the session service for the X11 sessions of this host.
    password [--remove] USER  sets the password that USER's desktop is reached with
    status [--json]           tells which desktop can be reached, or why none
    ticket [--rdp] USER       makes a one-time ticket for a front
)";

struct Arguments {
    std::filesystem::path configuration = "/etc/vorl/vorl_session.json";
    std::vector<std::string> words;

    /// Whether the option is there; takes it out.
    bool take(const std::string& option) { return std::erase(words, option) > 0; }
};

Arguments readArguments(int argc, char** argv) {
    Arguments arguments;
    arguments.words.assign(argv + 1, argv + argc);
    auto& words = arguments.words;
    if (words.size() >= 2 && words[0] == "--config") {
        arguments.configuration = words[1];
        words.erase(words.begin(), words.begin() + 2);
    }
    return arguments;
}

int run(Arguments arguments) {
    using namespace Vorl::Session;
    const auto& words = arguments.words;
    if (words.empty())
        return Service(arguments.configuration).run();
    const std::string command = words[0];
    const bool remove = command == "password" && arguments.take("--remove");
    const bool json = command == "status" && arguments.take("--json");
    const bool rdp = command == "ticket" && arguments.take("--rdp");
    const bool named = words.size() == 2 && !words[1].empty() && words[1][0] != '-';
    if (command == "password" && named)
        return Commands::password(arguments.configuration, words[1], remove);
    if (command == "status" && words.size() == 1)
        return Commands::status(json);
    if (command == "ticket" && named)
        return Commands::ticket(words[1], rdp);
    const bool help = command == "--help" && words.size() == 1;
    (help ? std::cout : std::cerr) << usage;
    return help ? EXIT_SUCCESS : 2;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return run(readArguments(argc, argv));
    } catch (const std::exception& problem) {
        std::cerr << "vorl_session: " << problem.what() << '\n';
        return EXIT_FAILURE;
    }
}

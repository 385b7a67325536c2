#include "session/password_prompt.h"

#include <array>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <stdexcept>

#include <termios.h>
#include <unistd.h>

namespace Vorl::Session {

namespace {

volatile std::sig_atomic_t interruptedBy = 0;

/// While it lives, what is typed is not shown, and a signal that would end the process only
/// interrupts the reading; it is raised again once the terminal is as it was.
class SilentTerminal {
public:
    SilentTerminal() {
        tcgetattr(STDIN_FILENO, &before);
        termios silent = before;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        struct sigaction action {};
        action.sa_handler = [](int signal) { interruptedBy = signal; };
        for (std::size_t i = 0; i < signals.size(); ++i)
            sigaction(signals[i], &action, &handlers[i]); // without SA_RESTART
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
    }
    SilentTerminal(const SilentTerminal&) = delete;
    SilentTerminal& operator=(const SilentTerminal&) = delete;
    ~SilentTerminal() {
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &before);
        for (std::size_t i = 0; i < signals.size(); ++i)
            sigaction(signals[i], &handlers[i], nullptr);
        if (interruptedBy != 0)
            raise(interruptedBy);
    }

private:
    static constexpr std::array signals = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP};
    std::array<struct sigaction, signals.size()> handlers{};
    termios before{};
};

// Byte by byte: nothing of it stays in a buffer of the standard library.
std::string readLine() {
    std::string line;
    char byte = 0;
    ssize_t size = 0;
    while ((size = read(STDIN_FILENO, &byte, 1)) == 1 && byte != '\n')
        line += byte;
    if (size < 0 || (size == 0 && line.empty()))
        throw std::runtime_error("no password was given");
    return line;
}

std::string prompt(const std::string& text) {
    const SilentTerminal silent;
    std::cerr << text;
    std::string line = readLine();
    std::cerr << '\n';
    return line;
}

} // namespace

std::string askForPassword(const std::string& user) {
    if (isatty(STDIN_FILENO) == 0)
        return readLine();
    std::string password = prompt("New password of " + user + " for remote log-in: ");
    if (password != prompt("The same again: "))
        throw std::runtime_error("the two passwords differ: nothing was changed");
    return password;
}

} // namespace Vorl::Session

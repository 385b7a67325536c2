#include "bus/signal_filter.h"
#include "common/accounts.h"
#include "common/call_failure.h"
#include "logger"
#include "proxy/command_line.h"
#include "proxy/proxy_connection.h"
#include "proxy/proxy_dispatcher.h"
#include "proxy/termination_signals.h"

#include <filesystem>
#include <iostream>
#include <system_error>

#include <unistd.h>

namespace Vorl {

namespace {

namespace fs = std::filesystem;

bool isPresent(const fs::path& path) {
    std::error_code ignored;
    return fs::exists(fs::status(path, ignored));
}

/// If the switch fails, the daemon continues under its current account; the log has the reason.
void becomeUser(CommandLine& commandLine) {
    if (commandLine.user.empty() || getuid() != 0)
        return;
    const auto account = Utils::getUserInfo(commandLine.user, true);
    if (!account)
        return;
    // Made absolute, because the switch makes the account's home directory the current directory.
    std::error_code ignored;
    if (const fs::path absolute = fs::absolute(commandLine.configPath, ignored); !ignored)
        commandLine.configPath = absolute;
    Utils::switchToUser(*account);
}

/// @return true in the process that is to end: the parent, also when there is no child
bool goesToBackground() {
    const pid_t child = fork();
    if (child < 0)
        logCallFailed("main", "fork");
    return child != 0;
}

void runProxy(DBus::Connection& connection, const std::string& configPath) {
    SignalFilter filter(connection);
    ProxyConnection proxy(connection, configPath, "/net/qarel/vorl", "net.qarel.vorl");
    filter.deliverHeldTo([&proxy](const DBus::SignalMessage& signal) {
        if (proxy.path() == signal.path())
            proxy.net::qarel::vorl_proxy::dispatch_signal(signal);
    });
    proxy.start();
}

/// Only logs failures: the exit status is 0 for every failure from here on.
void runAndReport(DBus::Connection& connection, const std::string& configPath) {
    try {
        runProxy(connection, configPath);
    } catch (const DBus::Error& failure) {
        Syslog::error("dbus error: %s", failure.what());
    } catch (const fs::filesystem_error& failure) {
        // Deliberately no space after "path2:": log parsers expect the line so.
        Syslog::error(
            "exception: what: `%s', path1: `%s', path2:`%s', code value: %d, code message: "
            "`%s', category name: `%s'",
            failure.what(), failure.path1().c_str(), failure.path2().c_str(),
            failure.code().value(), failure.code().message().c_str(),
            failure.code().category().name());
    } catch (const std::exception& failure) {
        Syslog::error("exception: %s", failure.what());
    }
}

} // namespace

} // namespace Vorl

int main(int argc, char** argv) {
    using namespace Vorl;

    auto commandLine = parseCommandLine(std::span(argv, static_cast<std::size_t>(argc)).subspan(1));
    if (!commandLine) {
        std::cout << usageText(argv[0]);
        return 0;
    }
    if (!isPresent(commandLine->configPath)) {
        std::cerr << "config not found" << std::endl;
        return 1;
    }
    becomeUser(*commandLine);
    if (commandLine->background && goesToBackground())
        return 0;

    exitOnTerminationSignals(commandLine->background);
    DBus::default_dispatcher = &proxyDispatcher;
    // Deliberately not caught: without a bus the daemon aborts, which a service manager sees.
    DBus::Connection connection = DBus::Connection::SystemBus();
    proxyDispatcher.attach(connection);
    runAndReport(connection, commandLine->configPath);
    return 0;
}

/// A small session service: it implements the bus interface that the daemon, vorl_proxy,
/// calls. Use it as a starting point for your own.
///
/// It owns the name net.qarel.vorl on the system bus, answers the daemon's calls, and
/// sends signals to the daemon on command. Everything happens on one thread, in one
/// dispatcher that waits for both the bus and standard input.
///
/// The commands, one per line; the service exits at the end of the input:
///     allow <session id> <second value>             let one client into the session
///     timeout <seconds>                             how long a listener waits for a client
///     disconnect <session id> <pid> <address>       end one relay of the session
///     stopped                                       the service is about to exit: the daemon exits
///
/// Each signal sent ("->") and each call received ("<-") is printed as one line that
/// begins with the time, in microseconds since the epoch.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <utility>

#include <poll.h>
#include <unistd.h>

#include <vorl_adaptor.h>

namespace {

template<typename... Parts> void print(const Parts&... parts) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    std::cout << std::chrono::duration_cast<std::chrono::microseconds>(now).count() << ' ';
    (std::cout << ... << parts) << std::endl;
}

/// The object /net/qarel/vorl. The dispatcher calls the methods. No exception other than
/// DBus::Error may leave them, because it would have to pass through C code.
class SessionService : public net::qarel::vorl_adaptor,
                       public DBus::IntrospectableAdaptor,
                       public DBus::ObjectAdaptor {
public:
    /// @param file contains the JSON text that describes the session
    SessionService(DBus::Connection& connection, std::string file)
        : DBus::ObjectAdaptor(connection, "/net/qarel/vorl"), descriptionFile(std::move(file)) {}

    // Any non-empty text tells the daemon that we are ready.
    std::string vorlTest() override {
        print("<- vorlTest()");
        return "ready";
    }

    // Called once for each client. The file is read each time, so it may change.
    std::string vorlSessionInfoJson(const std::uint32_t& sessionId) override {
        print("<- vorlSessionInfoJson(session ", sessionId, ")");
        std::ostringstream text;
        if (const std::ifstream file(descriptionFile); file.is_open())
            text << file.rdbuf();
        if (text.str().empty()) {
            print("   error reply: nothing to be read in ", descriptionFile);
            // Becomes an error reply: the daemon logs it and disconnects the client. The texts are
            // literals because DBus::Error does not copy them.
            throw DBus::Error("net.qarel.vorl.NoDescription", "the session is not described");
        }
        return text.str();
    }

    void proxyListenStarted(const std::uint32_t& sessionId, const bool& opened) override {
        print("<- proxyListenStarted(session ", sessionId, opened ? ", listening)" : ", failed)");
    }

    void proxyClientConnected(const std::uint32_t& sessionId, const std::string& address) override {
        print("<- proxyClientConnected(session ", sessionId, ", client ", address, ")");
    }

    // The pid identifies the relay: store it, to be able to end the relay later.
    void proxySessionConnected(const std::uint32_t& sessionId, const std::uint32_t& pid,
                               const std::string& address) override {
        print("<- proxySessionConnected(session ", sessionId, ", shadow pid ", pid, ", client ",
              address, ")");
    }

    /// Sends the signal that the command asks for.
    void handle(const std::string& command) {
        std::istringstream words(command);
        std::string verb;
        std::string address;
        std::uint32_t first = 0;
        std::uint32_t second = 0;
        words >> verb;
        if (verb == "allow" && words >> first >> second) {
            print("-> signalProxyAllowConnection(session ", first, ", second ", second, ")");
            signalProxyAllowConnection(first, second);
        } else if (verb == "timeout" && words >> first) {
            print("-> signalProxyListenTimeout(", first, " s)");
            signalProxyListenTimeout(first);
        } else if (verb == "disconnect" && words >> first >> second >> address) {
            print("-> signalSessionDisconnected(session ", first, ", shadow pid ", second,
                  ", client ", address, ")");
            signalSessionDisconnected(first, second, address);
        } else if (verb == "stopped") {
            print("-> signalVorlStopped()");
            signalVorlStopped();
        } else {
            std::cerr << "command not understood: '" << command << "'" << std::endl;
        }
    }

private:
    std::string descriptionFile;
};

/// Passes each line of standard input to the service, and stops the dispatcher at end of input.
class CommandInput {
public:
    CommandInput(SessionService& sessionService, DBus::BusDispatcher& loop)
        : service(sessionService), dispatcher(loop), watch(STDIN_FILENO, POLLIN, &loop) {
        watch.ready = new DBus::Callback<CommandInput, void, DBus::DefaultWatch&>(
            this, &CommandInput::readable);
    }

private:
    void readable(DBus::DefaultWatch&) {
        char buffer[512];
        const ssize_t count = read(STDIN_FILENO, buffer, sizeof buffer);
        if (count <= 0) {
            watch.enabled(false);
            dispatcher.leave();
            return;
        }
        pending.append(buffer, static_cast<std::size_t>(count));
        for (std::size_t end; (end = pending.find('\n')) != std::string::npos;) {
            const std::string line = pending.substr(0, end);
            pending.erase(0, end + 1);
            service.handle(line);
        }
    }

    SessionService& service;
    DBus::BusDispatcher& dispatcher;
    DBus::DefaultWatch watch;
    std::string pending; // the part of a line that has been read so far
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: " << argv[0] << " <file with the session's JSON description>\n";
        return 2;
    }
    try {
        DBus::BusDispatcher dispatcher;
        DBus::default_dispatcher = &dispatcher;
        DBus::Connection connection = DBus::Connection::SystemBus();
        SessionService service(connection, argv[1]);
        // Request the name last: whoever sees it may call at once.
        connection.request_name("net.qarel.vorl");
        print("owning net.qarel.vorl");
        CommandInput input(service, dispatcher);
        dispatcher.enter();
    } catch (const std::exception& error) {
        std::cerr << argv[0] << ": " << error.what() << std::endl;
        return 1;
    }
    return 0;
}

/// A session service in small: the other end of the bus interface that vorl_proxy
/// (the daemon) is a client of. Take it as the start of your own.
///
/// It owns the name net.qarel.vorl on the system bus, answers the daemon's calls, and
/// sends the daemon signals on command. Everything happens on one thread, in one
/// dispatcher that waits for the bus and for standard input alike.
///
/// The commands, one a line; the end of the input ends the service:
///     allow <session id> <second value>             let one client into the session
///     timeout <seconds>                             how long a listener waits for it
///     disconnect <session id> <pid> <address>       end one relay of the session
///     stopped                                       the service goes away; so does the daemon
///
/// Each signal sent ("->") and each call received ("<-") is printed as one line that
/// begins with the time, in microseconds since the epoch.
#include <chrono>
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

void print(const std::string& line) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto stamp = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
    std::cout << stamp << ' ' << line << std::endl;
}

/// The object /net/qarel/vorl. The dispatcher calls the methods; an exception other than
/// DBus::Error must not leave one, since there is C code between it and the dispatcher.
class SessionService : public net::qarel::vorl_adaptor,
                       public DBus::IntrospectableAdaptor,
                       public DBus::ObjectAdaptor {
public:
    /// \p descriptionFile holds the JSON text that describes the session.
    SessionService(DBus::Connection& connection, std::string descriptionFile)
        : DBus::ObjectAdaptor(connection, "/net/qarel/vorl"),
          descriptionFile_(std::move(descriptionFile)) {}

    // Any text but an empty one tells the daemon that we are ready.
    std::string vorlTest() override {
        print("<- vorlTest()");
        return "ready";
    }

    // Asked for once each client. The file is read anew each time, so that it may change.
    std::string vorlSessionInfoJson(const uint32_t& sessionId) override {
        print("<- vorlSessionInfoJson(session " + std::to_string(sessionId) + ")");
        std::ostringstream text;
        if (const std::ifstream file(descriptionFile_); file.is_open()) {
            text << file.rdbuf();
        }
        if (text.str().empty()) {
            std::cerr << "no session description in " << descriptionFile_ << std::endl;
            // Becomes an error reply: the daemon logs it and lets the client go. The texts are
            // literals because DBus::Error keeps no copy of them.
            throw DBus::Error("net.qarel.vorl.NoDescription", "the session is not described");
        }
        return text.str();
    }

    void proxyListenStarted(const uint32_t& sessionId, const bool& opened) override {
        print("<- proxyListenStarted(session " + std::to_string(sessionId) +
              (opened ? ", listening)" : ", failed)"));
    }

    void proxyClientConnected(const uint32_t& sessionId, const std::string& address) override {
        print("<- proxyClientConnected(session " + std::to_string(sessionId) + ", client " +
              address + ")");
    }

    // The pid names the relay: keep it for the day when you want to end this one.
    void proxySessionConnected(const uint32_t& sessionId, const uint32_t& pid,
                               const std::string& address) override {
        print("<- proxySessionConnected(session " + std::to_string(sessionId) + ", shadow pid " +
              std::to_string(pid) + ", client " + address + ")");
    }

    /// Sends the signal that \p command asks for.
    void handle(const std::string& command) {
        std::istringstream words(command);
        std::string verb;
        std::string address;
        uint32_t first = 0;
        uint32_t second = 0;
        words >> verb;
        if (verb == "allow" && words >> first >> second) {
            print("-> signalProxyAllowConnection(session " + std::to_string(first) + ", second " +
                  std::to_string(second) + ")");
            signalProxyAllowConnection(first, second);
        } else if (verb == "timeout" && words >> first) {
            print("-> signalProxyListenTimeout(" + std::to_string(first) + " s)");
            signalProxyListenTimeout(first);
        } else if (verb == "disconnect" && words >> first >> second >> address) {
            print("-> signalSessionDisconnected(session " + std::to_string(first) +
                  ", shadow pid " + std::to_string(second) + ", client " + address + ")");
            signalSessionDisconnected(first, second, address);
        } else if (verb == "stopped") {
            print("-> signalVorlStopped()");
            signalVorlStopped();
        } else {
            std::cerr << "command not understood: '" << command << "'" << std::endl;
        }
    }

private:
    std::string descriptionFile_;
};

/// Hands each line of standard input to the service, and stops the dispatcher at its end.
class CommandInput {
public:
    CommandInput(SessionService& service, DBus::BusDispatcher& dispatcher)
        : service_(service), dispatcher_(dispatcher), watch_(STDIN_FILENO, POLLIN, &dispatcher) {
        watch_.ready = new DBus::Callback<CommandInput, void, DBus::DefaultWatch&>(
            this, &CommandInput::readable);
    }

private:
    void readable(DBus::DefaultWatch&) {
        char buffer[512];
        const ssize_t count = read(STDIN_FILENO, buffer, sizeof buffer);
        if (count <= 0) {
            watch_.enabled(false);
            dispatcher_.leave();
            return;
        }
        pending_.append(buffer, static_cast<size_t>(count));
        for (size_t end; (end = pending_.find('\n')) != std::string::npos;) {
            const std::string line = pending_.substr(0, end);
            pending_.erase(0, end + 1);
            service_.handle(line);
        }
    }

    SessionService& service_;
    DBus::BusDispatcher& dispatcher_;
    DBus::DefaultWatch watch_;
    std::string pending_; // the part of a line that has come so far
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
        // The name last: whoever sees it may call at once.
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

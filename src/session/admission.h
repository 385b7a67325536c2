#pragma once

#include "session/failed_addresses.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace Vorl::Session {

/// What a further client means for the one that sees the desktop already. The numbers are those of
/// the configuration words "prevreplace" (2) and "multiallow" (3); any other word refuses.
enum class Policy { Refuse = 1, Replace = 2, Allow = 3 };

/// The part of the configuration that decisions depend on.
struct Rules {
    Policy policy = Policy::Replace;
    int limit = 10;                   ///< of clients that see one desktop at a time
    bool endOnLock = false;           ///< a locked screen ends the connections
    bool delayFailedAddresses = true; ///< off where all clients have the address of one front
};

/// One connection, from its arrival to the end of its relay.
struct Client {
    std::uint32_t number = 0; ///< of its allowance; the bus interface calls it session
    std::string session;      ///< logind's id: a text
    std::string user;
    std::string address;
    std::uint16_t port = 0; ///< the client's own; 0 when its socket could not be found
    pid_t pid = 0;          ///< the shadow server's; 0 until the relay runs
    Time since;
    bool shown = false; ///< it has been sent the picture, hence has proved the password
    std::uint64_t sent = 0;
    std::uint64_t received = 0;
    std::string end;     ///< why we have ended it; empty while we have not
    Time nextDisconnect; ///< when to tell the daemon again
};

/// What is to be done about a decision. For Allow and Cancel only the client's number counts.
struct Action {
    enum class What {
        Allow,      ///< let the daemon listen
        Cancel,     ///< let it close the port again
        Opened,     ///< the port is open for session and user
        Taken,      ///< the port is closed: a client has come
        Closed,     ///< the port is closed: nobody has come
        Disconnect, ///< end this relay
        Shown,      ///< the client sees the picture
        Ended,      ///< the client is gone, having seen it
        Unshown,    ///< the client is gone without having seen it
        Refused     ///< the client's address has to wait
    };
    What what;
    Client client;
};

/// Whom to allow when: all decisions of the service, and no input or output. Told what has
/// happened and when, it leaves actions to be taken; one thread.
///
/// A client counts only once it sees the picture. That a relay runs proves nothing: a stranger who
/// connects and stays silent has one too, and would otherwise lock out everybody else or end the
/// user's own connection.
class Admission {
public:
    /// @param firstNumber of the allowances; one that no previous instance of the service has used
    explicit Admission(std::uint32_t firstNumber) : nextNumber(firstNumber) {}

    struct Desktop {
        std::string session;
        std::string user;
        bool operator==(const Desktop&) const = default;
    };

    void setRules(const Rules& newRules) { rules = newRules; }
    /// The desktop that the port is for, or none, and the ids of all sessions that still may be
    /// shown to those who are connected to them.
    void setDesktop(const std::optional<Desktop>& reachable, const std::vector<std::string>& alive,
                    Time now);
    /// The session has been locked: ends its connections where the rules say so.
    void locked(const std::string& session, Time now);
    /// The daemon has started, or has gone: there is no listener, and no client on its way.
    void daemonChanged(Time now);
    // The daemon's reports. `number` is the allowance's; an unknown one is ignored.
    /// @param opened false when the daemon could not listen
    void listenStarted(std::uint32_t number, bool opened, Time now);
    /// @param port the client's
    /// @return false when the client must be rejected
    bool clientConnected(std::uint32_t number, const std::string& address, std::uint16_t port,
                         Time now);
    /// Whether the desktop may be described to the daemon for this client.
    [[nodiscard]] bool mayDescribe(std::uint32_t number) const;
    /// The desktop could not be described, so that the daemon lets the client go.
    void notDescribed(std::uint32_t number, const std::string& why, Time now);
    void relayStarted(std::uint32_t number, pid_t pid, Time now);
    void relayEnded(std::uint32_t number, Time now);
    /// The bytes that the client was sent and has sent until now.
    void counted(std::uint32_t number, std::uint64_t sent, std::uint64_t received, Time now);
    /// The service stops: ends all connections and closes the port.
    void stop(Time now);
    /// Time has passed.
    void advance(Time now);

    /// When `advance` has something to do, if nothing happens before.
    [[nodiscard]] Time nextDeadline() const;
    /// The actions since the last call, in their order.
    [[nodiscard]] std::vector<Action> takeActions() { return std::exchange(actions, {}); }

    [[nodiscard]] const std::vector<Client>& clients() const { return connected; }
    [[nodiscard]] bool listening() const { return listener && listener->open; }
    /// Whether an allowance has gone unanswered for longer than a running daemon takes.
    [[nodiscard]] bool unanswered(Time now) const;
    /// Whether the port is closed because the policy admits nobody else at present.
    [[nodiscard]] bool full() const;

private:
    /// An allowance, until its client has come.
    struct Listener {
        std::uint32_t number = 0;
        bool open = false;
        Time since;
        Time again;
    };

    [[nodiscard]] Client* find(std::uint32_t number);
    [[nodiscard]] std::size_t shownIn(const std::string& session) const;
    [[nodiscard]] std::size_t unshownFrom(const std::string& address) const;
    [[nodiscard]] bool wanted() const { return desktop && !pending && !full(); }
    void act(Action::What what, const Client& client) { actions.push_back({what, client}); }
    void actForListener(Action::What what);
    void end(Client& client, const std::string& why, Time now);
    void endPending(const std::string& why);
    void closeListener(Time now);
    void applyPolicy(Client& newcomer, Time now);
    void endUnshown(Time now);
    void keepListening(Time now);

    Rules rules;
    std::uint32_t nextNumber;
    std::optional<Desktop> desktop;
    std::optional<Listener> listener;
    std::optional<Client> pending; ///< has connected; its relay does not run yet
    std::vector<Client> connected;
    FailedAddresses failures;
    Time notBefore; ///< of the next allowance: the daemon is busy until then
    std::vector<Action> actions;
};

} // namespace Vorl::Session

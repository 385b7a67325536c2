#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <dbus/dbus.h>
#include <sys/types.h>

namespace Vorl {

/// Knows under which accounts the senders of bus messages run.
///
/// The bus is asked once for each connection, by org.freedesktop.DBus.GetConnectionUnixUser, and
/// nobody waits for its answer. The owner of the session service's name, and connections that come
/// and go, are learnt from NameOwnerChanged. Connections are looked up as soon as they come: the
/// bus cannot tell the account of a sender that has left.
///
/// The questions go through a bus connection of their own. On the one that carries signals and
/// calls, a question would not be sent before the call that another thread waits for has ended.
///
/// All members, and `answered`, run on the thread that dispatches the bus.
class SenderAccounts {
public:
    enum class Verdict {
        Pending, ///< the bus has not answered yet
        Allowed, ///< root, the daemon's own account, or the one that owns the session service
        Denied,  ///< any other account, or one that cannot be looked up
    };

    /// @param service the session service's well-known name
    /// @param answered called when verdicts may have changed
    /// @throws DBus::Error when the system bus takes no further connection
    SenderAccounts(std::string service, std::function<void()> answered);
    SenderAccounts(const SenderAccounts&) = delete;
    SenderAccounts& operator=(const SenderAccounts&) = delete;
    ~SenderAccounts() = default; // look-ups that are not answered yet are cancelled

    /// Takes the answers that have arrived. Does not wait.
    /// @return the descriptor to poll for the next ones; negative when the connection is lost
    int takeAnswers();

    /// @param sender the unique bus name of a connection
    Verdict judge(const std::string& sender);

    /// Empty when the account is not known, or not yet.
    [[nodiscard]] std::optional<uid_t> accountOf(const std::string& sender) const;

    /// To be called for each NameOwnerChanged of the bus.
    /// @param now the name's new owner; empty for none
    void ownerChanged(const std::string& name, const std::string& now);

private:
    struct CloseConnection {
        void operator()(DBusConnection* connection) const;
    };
    struct CancelCall {
        void operator()(DBusPendingCall* call) const;
    };
    struct Sender {
        std::unique_ptr<DBusPendingCall, CancelCall> lookUp; // null once it has been answered
        std::optional<uid_t> account;
        bool hasLeft = false; // and will not send again
    };
    struct Query;

    const Sender& find(const std::string& name);
    void lookUp(const std::string& name, Sender& sender);
    static void take(DBusPendingCall* call, void* query);
    void take(const std::string& name, DBusMessage* reply);

    const std::unique_ptr<DBusConnection, CloseConnection> bus;
    const std::string service;
    const uid_t ownAccount;
    const std::function<void()> answered;
    std::map<std::string, Sender> senders; // by bus name
    /// Bus name of the session service; empty for none. Its well-known name until the first
    /// NameOwnerChanged.
    std::string owner;
};

} // namespace Vorl

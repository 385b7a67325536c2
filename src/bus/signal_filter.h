#pragma once

#include "bus/sender_accounts.h"

#include <deque>
#include <functional>

#include <dbus-c++/dbus.h>

namespace Vorl {

/// Keeps signals with missing or wrong arguments, and signals of unauthorised senders, from the
/// generated stubs, with a warning for each.
///
/// A stub throws when an argument's type differs from the interface. C functions of libdbus call
/// it, through which no exception may pass. Extra arguments are accepted.
///
/// Only root, the daemon's own account and the account that owns the session service's name are
/// obeyed, from any of their connections. Where the bus policy is missing, any account could open
/// the port and stop the daemon otherwise. While a sender's account is being looked up, its signals
/// are held in their order; those of others are not.
///
/// Filters run in the order in which they were added: create the filter before the proxy object,
/// and destroy it after that.
class SignalFilter {
public:
    /// @throws DBus::Error when the system bus takes no connection for the look-ups
    explicit SignalFilter(DBus::Connection& connection);
    SignalFilter(const SignalFilter&) = delete;
    SignalFilter& operator=(const SignalFilter&) = delete;
    ~SignalFilter();

    /// Takes the answers to look-ups, as a dispatcher for BusLoop::alsoServe().
    int takeAnswers() { return accounts.takeAnswers(); }

    /// Names the receiver of held signals. Call it before the bus is dispatched.
    void deliverHeldTo(std::function<void(const DBus::SignalMessage&)> receiver);

private:
    /// @return true when the message must not be processed further
    bool shouldDrop(const DBus::Message& message);
    void noteOwnerChange(const DBus::Message& message);
    void hold(const DBus::Message& signal);
    void processHeldSignals();

    DBus::Connection connection;
    SenderAccounts accounts;
    std::deque<DBus::Message> held; // their senders' accounts are being looked up
    std::function<void(const DBus::SignalMessage&)> receive;
    DBus::MessageSlot slot; // libdbus keeps its address while the filter is installed
};

} // namespace Vorl

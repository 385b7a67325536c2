#pragma once

#include <dbus-c++/dbus.h>

namespace Vorl {

/// Keeps signals with missing or wrong arguments from the generated stubs.
///
/// A stub throws when an argument's type differs from the interface. C functions of libdbus call
/// it, through which no exception may pass, and any account that may send on the bus can send such
/// a signal. The filter drops the signal with a warning. Extra arguments are accepted.
///
/// Filters run in the order in which they were added: create the filter before the proxy object,
/// and destroy it after that.
class SignalFilter {
public:
    explicit SignalFilter(DBus::Connection& connection);
    SignalFilter(const SignalFilter&) = delete;
    SignalFilter& operator=(const SignalFilter&) = delete;
    ~SignalFilter();

private:
    /// @return true when the message must not be processed further
    bool swallows(const DBus::Message& message);

    DBus::Connection connection;
    DBus::MessageSlot slot; // libdbus keeps its address while the filter is installed
};

} // namespace Vorl

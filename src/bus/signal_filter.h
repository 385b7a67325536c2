#pragma once

#include <dbus-c++/dbus.h>

namespace Vorl {

/// Keeps signals with missing or wrong arguments from the generated stubs.
///
/// A stub throws when an argument has another type than the interface says, inside libdbus's C
/// frames, where no exception may pass; and any account that may send to the bus may send such a
/// signal. The filter swallows it with a warning. Arguments after the expected ones are fine.
///
/// Filters run in the order in which they were added: make it before the proxy object, and let it
/// outlive that.
class SignalFilter {
public:
    explicit SignalFilter(DBus::Connection& connection);
    SignalFilter(const SignalFilter&) = delete;
    SignalFilter& operator=(const SignalFilter&) = delete;
    ~SignalFilter();

private:
    /// @return true when the message goes no further
    bool swallows(const DBus::Message& message);

    DBus::Connection connection;
    DBus::MessageSlot slot; // libdbus holds its address while the filter is in place
};

} // namespace Vorl

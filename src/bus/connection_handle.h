#pragma once

#include <dbus-c++/dbus.h>
#include <dbus/dbus.h>

namespace Vorl {

/// The connection's private part, for queue_connection() of the library's dispatcher. The library
/// offers no access to it.
[[nodiscard]] DBus::Connection::Private* privatePartOf(DBus::Connection& connection);

/// libdbus's handle of the connection, for what libdbus-c++ does not offer. The connection keeps
/// owning it.
[[nodiscard]] DBusConnection* handleOf(DBus::Connection& connection);

} // namespace Vorl

#include "bus/connection_handle.h"

namespace Vorl {

namespace {

using PrivatePart = DBus::RefPtrI<DBus::Connection::Private>;

/// Only an explicit template instantiation may name a private member. The friend function that it
/// defines is declared again below, so that name lookup finds it.
template<PrivatePart DBus::Connection::*member> struct PrivateAccess {
    friend DBus::Connection::Private* readPrivatePart(DBus::Connection& connection) {
        return (connection.*member).get();
    }
};
template struct PrivateAccess<&DBus::Connection::_pvt>;
DBus::Connection::Private* readPrivatePart(DBus::Connection& connection);

} // namespace

DBus::Connection::Private* privatePartOf(DBus::Connection& connection) {
    return readPrivatePart(connection);
}

DBusConnection* handleOf(DBus::Connection& connection) {
    // The first field of the private part in version 0.9.0, the last release and the only one that
    // the build accepts.
    return *reinterpret_cast<DBusConnection**>(privatePartOf(connection));
}

} // namespace Vorl

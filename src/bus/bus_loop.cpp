#include "bus/bus_loop.h"

#include <poll.h>
#include <sys/socket.h>

namespace Vorl {

namespace {

using PrivatePart = DBus::RefPtrI<DBus::Connection::Private>;

/// The library keeps a connection's private part to itself, and there is no other way to its queue
/// of messages or to libdbus's handle. An explicit instantiation is the one place that may name a
/// private member; the friend that it defines is declared again below, to be found by its name.
template<PrivatePart DBus::Connection::*member> struct PrivateAccess {
    friend DBus::Connection::Private* privatePartOf(DBus::Connection& connection) {
        return (connection.*member).get();
    }
};
template struct PrivateAccess<&DBus::Connection::_pvt>;
DBus::Connection::Private* privatePartOf(DBus::Connection& connection);

constexpr int turnMilliseconds = 50;
constexpr int writeTurnMilliseconds = 2;

} // namespace

void BusLoop::attach(DBus::Connection& connection) {
    queueEntry = privatePartOf(connection);
    // libdbus's handle is the private part's first field in 0.9.0, the only version that the build
    // takes and the last one there is.
    bus = *reinterpret_cast<DBusConnection**>(queueEntry);
}

void BusLoop::enter() {
    while (!stopping) {
        // Unasked: messages that another thread has read were not announced to this one.
        queue_connection(queueEntry);
        dispatch_pending();
        if (!dbus_connection_get_is_connected(bus))
            return;
        waitForInput();
        // Without waiting: when another thread is in a call, it reads for both of us.
        dbus_connection_read_write(bus, 0);
    }
}

void BusLoop::waitForInput() const {
    pollfd entry{-1, POLLIN, 0};
    // Not for POLLOUT: while another thread is in a call, what is queued cannot be written here,
    // and a socket with room would have the loop spin.
    const int turn =
        dbus_connection_has_messages_to_send(bus) ? writeTurnMilliseconds : turnMilliseconds;
    if (dbus_connection_get_unix_fd(bus, &entry.fd))
        poll(&entry, 1, turn);
}

void BusLoop::hangUp() {
    int fd = -1;
    // Not dbus_connection_close(): closing does not wake a thread that waits in poll(2).
    if (dbus_connection_get_unix_fd(bus, &fd))
        shutdown(fd, SHUT_RDWR);
}

} // namespace Vorl

#include "bus/bus_loop.h"

#include <poll.h>
#include <sys/socket.h>

namespace Vorl {

namespace {

using PrivatePart = DBus::RefPtrI<DBus::Connection::Private>;

/// Gives access to a private member of the connection: the library offers no other access to its
/// message queue and to libdbus's handle. Only an explicit template instantiation may name a
/// private member. The friend function that it defines is declared again below, so that name lookup
/// finds it.
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
    // libdbus's handle is the first field of the private part in version 0.9.0, the last release
    // and the only one that the build accepts.
    bus = *reinterpret_cast<DBusConnection**>(queueEntry);
}

void BusLoop::enter() {
    while (!stopping) {
        // Always: this thread is not notified of messages that another thread has read.
        queue_connection(queueEntry);
        dispatch_pending();
        if (!dbus_connection_get_is_connected(bus))
            return;
        waitForInput();
        // Does not block: while another thread is in a call, that thread reads for both.
        dbus_connection_read_write(bus, 0);
    }
}

void BusLoop::waitForInput() const {
    pollfd entry{-1, POLLIN, 0};
    // Not POLLOUT: while another thread is in a call, this one cannot write queued messages, and a
    // writable socket would make the loop spin.
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

#include "bus/bus_loop.h"

#include "bus/connection_handle.h"

#include <poll.h>
#include <sys/socket.h>

namespace Vorl {

namespace {

constexpr int turnMilliseconds = 50;
constexpr int writeTurnMilliseconds = 2;

} // namespace

void BusLoop::attach(DBus::Connection& connection) {
    queueEntry = privatePartOf(connection);
    bus = handleOf(connection);
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

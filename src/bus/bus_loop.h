#pragma once

#include <atomic>
#include <functional>
#include <utility>

#include <dbus-c++/dbus.h>
#include <dbus/dbus.h>

namespace Vorl {

/// The bus dispatcher of a program in which other threads call methods on the connection whose
/// signals the main thread handles.
///
/// The library's own loop cannot do that: a signal that a calling thread reads while it waits for
/// its reply does not wake the loop and stays unhandled for up to ten seconds; a leave() before
/// enter() is lost; its lists of watches and timeouts can deadlock with a caller; and it measures
/// time with the wall clock. This loop leaves all reading and writing to libdbus, which supports a
/// connection that threads share, and checks the message queue at every turn.
///
/// One connection per loop. To use it: make it DBus::default_dispatcher, open the connection,
/// attach() it, and call enter().
class BusLoop : public DBus::BusDispatcher {
public:
    /// Call it before enter(), on the same thread. The connection must outlive enter().
    void attach(DBus::Connection& connection);

    /// Adds a second connection, which has a dispatcher of its own: enter() calls it at each turn,
    /// and waits for the descriptor that it returns. A negative one means that the connection is
    /// lost. Call it before enter().
    void alsoServe(std::function<int()> dispatcher) { dispatchOther = std::move(dispatcher); }

    /// Dispatches the connection's messages, each within about 50 ms, until leave() is called or
    /// a connection is lost. Handlers run on the calling thread and are called by C functions of
    /// libdbus: they must not throw.
    void enter() override;

    /// Makes enter() return at its next turn, even if enter() is called only later. Any thread.
    void leave() override { stopping = true; }

    /// Shuts the connection down even while calls wait on it: they throw DBus::Error at once
    /// instead of after their timeout of 25 seconds. Any thread, once attached.
    void hangUp();

private:
    void waitForInput() const;

    std::function<int()> dispatchOther; // written by alsoServe(); may be empty
    int otherFd = -1;                   // what it returned last

    DBus::Connection::Private* queueEntry = nullptr; // written by attach()
    DBusConnection* bus = nullptr;                   // written by attach()
    std::atomic<bool> stopping = false;              // never reset
};

} // namespace Vorl

#pragma once

#include <atomic>

#include <dbus-c++/dbus.h>
#include <dbus/dbus.h>

namespace Vorl {

/// The bus dispatcher of a program whose threads call methods on the connection that the main
/// thread takes its signals from.
///
/// The library's own loop is not fit for that: a signal that a calling thread reads while it waits
/// for its reply does not wake the loop and lies there for up to ten seconds; a leave() before
/// enter() is lost; its lists of watches and timeouts can deadlock with a caller, and it takes
/// time from the wall clock. This one leaves all reading and writing to libdbus, which knows how
/// to share a connection between threads, and looks at the queue of messages at every turn.
///
/// One connection for each loop. Use: make it DBus::default_dispatcher, open the connection,
/// attach() it, enter().
class BusLoop : public DBus::BusDispatcher {
public:
    /// Before enter(), by the thread that calls it. The connection outlives the loop's run.
    void attach(DBus::Connection& connection);

    /// Dispatches the connection's messages, each handled within about 50 ms, until leave() or
    /// until the connection is lost. Handlers run on the calling thread, inside libdbus's C frames:
    /// an exception must not leave one.
    void enter() override;

    /// Ends enter() at its next turn, also one that comes later. Any thread.
    void leave() override { stopping = true; }

    /// Ends the connection under whatever call waits on it: the call throws DBus::Error within
    /// moments instead of after its 25 seconds. Any thread, once attached.
    void hangUp();

private:
    void waitForInput() const;

    DBus::Connection::Private* queueEntry = nullptr; // written by attach()
    DBusConnection* bus = nullptr;                   // written by attach()
    std::atomic<bool> stopping = false;              // never reset
};

} // namespace Vorl

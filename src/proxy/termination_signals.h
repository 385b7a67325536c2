#pragma once

namespace Vorl {

/// Lets SIGTERM, and in the foreground SIGINT, clear proxyRunning. In the background SIGINT is
/// ignored: a key in the terminal that started the daemon is not meant for it.
void installTerminationHandlers(bool background);

/// Keeps both signals pending, from before the handlers are installed until start() has set
/// proxyRunning: that store would overwrite what the handler did. A signal that comes meanwhile
/// ends the process at once, with status 0: the bus may be silent for ever, and there is nothing
/// yet to put in order. Main thread, before any other thread or child exists that could inherit the
/// mask.
void holdTerminationSignals();
/// Ends that. Main thread, before the threads of the running daemon are made.
void deliverTerminationSignals();

} // namespace Vorl

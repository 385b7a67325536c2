#pragma once

namespace Vorl {

/// Until the daemon has started, SIGTERM and in the foreground SIGINT end the process at once, with
/// status 0: the bus may never answer, and there is nothing to clean up yet. In the background
/// SIGINT is ignored: Ctrl-C in the terminal that started the daemon is not meant for it.
void exitOnTerminationSignals(bool background);

/// From now on the same signals call requestStop(). Main thread, after startRunning(): in the other
/// order that could set proxyRunning again after a signal has cleared it.
void stopOnTerminationSignals();

} // namespace Vorl

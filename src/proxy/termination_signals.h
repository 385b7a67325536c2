#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

namespace Vorl {

/// Lets SIGTERM, and in the foreground SIGINT, clear proxyRunning. In the background SIGINT is
/// ignored: a key in the terminal that started the daemon is not meant for it.
void installTerminationHandlers(bool background);

/// Keeps both signals pending, from before the handlers are installed until start() has set
/// proxyRunning: that store would overwrite what the handler did. Main thread, before any other
/// thread or child exists that could inherit the mask.
void holdTerminationSignals();
/// Delivers what came meanwhile.
void deliverTerminationSignals();

/// While it lives, a held termination signal ends the bus connection, so that the main thread's
/// call to a session service that does not answer fails at once and not after 25 seconds.
class HeldSignalWatch {
public:
    HeldSignalWatch();

private:
    void watch(const std::stop_token& stop);

    std::mutex mutex; // only what the condition variable needs
    std::condition_variable_any wake;
    std::jthread thread; // last: it ends before the others go
};

} // namespace Vorl

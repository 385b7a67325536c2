#include "proxy/termination_signals.h"

#include "proxy/globals.h"

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <optional>
#include <thread>

#include <unistd.h>

namespace Vorl {

namespace {

void signalHandler(int /*signal*/) {
    proxyRunning = false;
}

sigset_t terminationSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    return set;
}

bool isIgnored(int number) {
    struct sigaction current {};
    sigaction(number, nullptr, &current);
    return current.sa_handler == SIG_IGN;
}

/// A signal that is ignored stays pending all the same while it is blocked.
bool terminationSignalHeld() {
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    return sigismember(&pending, SIGTERM) == 1 ||
           (sigismember(&pending, SIGINT) == 1 && !isIgnored(SIGINT));
}

/// Looks for a held signal, until it is told to stop.
class HeldSignalWatch {
public:
    HeldSignalWatch() : thread([this](const std::stop_token& stop) { watch(stop); }) {}

private:
    void watch(const std::stop_token& stop) {
        std::unique_lock lock(mutex);
        while (!stop.stop_requested()) {
            if (terminationSignalHeld())
                _exit(0);
            wake.wait_for(lock, stop, interval, [] { return false; });
        }
    }

    static constexpr std::chrono::milliseconds interval{50};
    std::mutex mutex; // only what the condition variable needs
    std::condition_variable_any wake;
    std::jthread thread; // last: it ends before the others go
};

std::optional<HeldSignalWatch> heldSignalWatch; // main thread

} // namespace

void installTerminationHandlers(bool background) {
    signal(SIGTERM, signalHandler);
    signal(SIGINT, background ? SIG_IGN : signalHandler);
}

void holdTerminationSignals() {
    const sigset_t set = terminationSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    heldSignalWatch.emplace();
}

void deliverTerminationSignals() {
    heldSignalWatch.reset();
    const sigset_t set = terminationSignals();
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

} // namespace Vorl

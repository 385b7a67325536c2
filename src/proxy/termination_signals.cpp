#include "proxy/termination_signals.h"

#include "proxy/globals.h"

#include <chrono>
#include <csignal>

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

} // namespace

void installTerminationHandlers(bool background) {
    signal(SIGTERM, signalHandler);
    signal(SIGINT, background ? SIG_IGN : signalHandler);
}

void holdTerminationSignals() {
    const sigset_t set = terminationSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void deliverTerminationSignals() {
    const sigset_t set = terminationSignals();
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

HeldSignalWatch::HeldSignalWatch() : thread([this](const std::stop_token& stop) { watch(stop); }) {}

void HeldSignalWatch::watch(const std::stop_token& stop) {
    constexpr std::chrono::milliseconds interval{50};
    std::unique_lock lock(mutex);
    while (!stop.stop_requested()) {
        if (terminationSignalHeld()) {
            proxyDispatcher.hangUp();
            return;
        }
        wake.wait_for(lock, stop, interval, [] { return false; });
    }
}

} // namespace Vorl

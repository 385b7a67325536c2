#include "proxy/termination_signals.h"

#include "common/run_state.h"

#include <csignal>

#include <unistd.h>

namespace Vorl {

namespace {

void exitAtOnce(int /*signal*/) {
    _exit(0);
}

void signalHandler(int /*signal*/) {
    requestStop();
}

bool isIgnored(int number) {
    struct sigaction current {};
    sigaction(number, nullptr, &current);
    return current.sa_handler == SIG_IGN;
}

} // namespace

void exitOnTerminationSignals(bool background) {
    signal(SIGTERM, exitAtOnce);
    signal(SIGINT, background ? SIG_IGN : exitAtOnce);
}

void stopOnTerminationSignals() {
    signal(SIGTERM, signalHandler);
    if (!isIgnored(SIGINT))
        signal(SIGINT, signalHandler);
}

} // namespace Vorl

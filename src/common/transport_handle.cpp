#include "common/transport_handle.h"

#include "common/run_state.h"
#include "logger"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <thread>

#include <sys/wait.h>

namespace Vorl {

namespace {

using namespace std::chrono_literals;

using Clock = std::chrono::steady_clock;

constexpr auto terminationGrace = 3s;

/// Checks a child without reaping it.
bool hasEnded(int pid) {
    siginfo_t info{};
    const int result = waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT);
    return result < 0 ? errno == ECHILD : info.si_pid == pid;
}

bool waitForEnd(const TransportHandle& transport, std::chrono::milliseconds limit) {
    const auto& [pid, status] = transport;
    if (status.wait_for(0ms) != std::future_status::deferred)
        return status.wait_for(limit) == std::future_status::ready;

    // No thread could be created to wait for the child: get() of the future reaps it.
    const auto deadline = Clock::now() + limit;
    while (!hasEnded(pid)) {
        if (Clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

void reap(TransportHandle& transport, const char* caller) {
    Utils::syslogWaitStatus(transport.second.get(), caller, transport.first);
}

} // namespace

bool transportRunning(const TransportHandle& transport) {
    return !waitForEnd(transport, 0ms) && Utils::processRunning(transport.first);
}

void terminateTransport(const TransportHandle& transport) {
    if (transportRunning(transport))
        kill(transport.first, SIGTERM);
}

void awaitTransport(TransportHandle& transport, const char* caller) {
    while (proxyRunning) {
        if (waitForEnd(transport, 100ms)) {
            reap(transport, caller);
            return;
        }
    }
    terminateTransport(transport);
    releaseTransport(transport, Clock::now(), caller);
}

void releaseTransport(TransportHandle& transport, Clock::time_point since, const char* caller) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(since + terminationGrace - Clock::now());
    if (!waitForEnd(transport, std::max(left, 0ms)) && transportRunning(transport)) {
        Syslog::warning("%s: transport does not end, killed, pid: %d", caller, transport.first);
        kill(transport.first, SIGKILL);
    }
    reap(transport, caller);
}

} // namespace Vorl

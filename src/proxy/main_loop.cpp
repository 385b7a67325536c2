#include "common/run_state.h"
#include "common/version.h"
#include "proxy/proxy_connection.h"
#include "proxy/proxy_dispatcher.h"
#include "proxy/termination_signals.h"

#include <chrono>
#include <optional>
#include <thread>

#include <sys/stat.h>
#include <unistd.h>

namespace Vorl {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto watchInterval = 3s;
constexpr auto sweepInterval = 350ms;
constexpr auto periodicSleep = 150ms;

} // namespace

void ProxyConnection::start() {
    umask(027);
    if (vorlTest().empty()) {
        Syslog::notice("%s: check service: %s", "start", "failed");
        return;
    }
    Syslog::notice("%s: started, version %s, pid: %d, uid: %d", "start",
                   productVersion("PROXY").c_str(), getpid(), getuid());

    startRunning();
    serviceManager.ready();
    stopOnTerminationSignals();
    std::thread periodic(&ProxyConnection::periodicTask, this);
    proxyDispatcher.enter();
    if (requestStop()) {
        Syslog::error("%s: connection to the system bus lost, stopping; the service manager should "
                      "start the daemon again",
                      "start");
    }
    if (periodic.joinable())
        periodic.join();
    // The rest of a stop, in order: ~ProxyConnection().
}

void ProxyConnection::periodicTask() {
    auto lastWatch = Clock::now();
    auto lastSweep = lastWatch;
    while (proxyRunning) {
        const auto now = Clock::now();
        if (now - lastWatch > watchInterval) {
            try {
                reloadConfigWatcher();
            } catch (const std::exception& failure) {
                Syslog::error("%s: exception: %s, configuration kept, check file: %s",
                              "PeriodicTask", failure.what(), config.path().c_str());
            }
            lastWatch = now;
        }
        if (now - lastSweep > sweepInterval && sweepFinishedJobs())
            lastSweep = now;
        std::this_thread::sleep_for(periodicSleep);
    }
    serviceManager.stopping();
    proxyDispatcher.leave();
}

bool ProxyConnection::sweepFinishedJobs() {
    const std::optional<std::size_t> left = jobs.sweep();
    if (!left)
        return false;
    serviceManager.showActivity(*left, accepting ? std::optional(listeningSessionId.load())
                                                 : std::nullopt);
    return true;
}

} // namespace Vorl

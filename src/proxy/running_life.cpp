#include "common/version.h"
#include "proxy/globals.h"
#include "proxy/proxy_connection.h"
#include "proxy/termination_signals.h"

#include <chrono>
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
constexpr auto stopGrace = 2s;

struct ClearAtEnd {
    std::atomic<bool>& flag;
    ~ClearAtEnd() { flag = false; }
};

} // namespace

void ProxyConnection::start() {
    umask(027);
    std::string answer;
    {
        const HeldSignalWatch watch;
        answer = vorlTest();
    }
    if (answer.empty()) {
        Syslog::notice("%s: check service: %s", "start", "failed");
        return;
    }
    Syslog::notice("%s: started, version %s, pid: %d, uid: %d", "start",
                   productVersion("PROXY").c_str(), getpid(), getuid());

    serviceManager.ready();
    proxyRunning = true;
    deliverTerminationSignals();
    std::thread periodic(&ProxyConnection::periodicTask, this);
    proxyDispatcher.enter();
    if (proxyRunning.exchange(false)) {
        Syslog::error("%s: connection to the system bus lost, stopping; the service manager should "
                      "start the daemon again",
                      "start");
    }
    if (periodic.joinable())
        periodic.join();
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
                              "PeriodicTask", failure.what(), configPath.c_str());
            }
            lastWatch = now;
        }
        if (now - lastSweep > sweepInterval && sweepFinishedJobs())
            lastSweep = now;
        std::this_thread::sleep_for(periodicSleep);
    }
    serviceManager.stopping();
    proxyDispatcher.leave();

    // The acceptance task sees the end of proxyRunning by itself, but not inside a bus call, where
    // it may wait 25 seconds for an answer and even hold the mutex that a signal handler wants.
    const auto deadline = Clock::now() + stopGrace;
    while (accepting && Clock::now() < deadline)
        std::this_thread::sleep_for(10ms);
    if (accepting)
        proxyDispatcher.hangUp();
}

bool ProxyConnection::sweepFinishedJobs() {
    // Not to wait for: the acceptance task holds it during a bus call, and a stop must be noticed.
    const std::unique_lock lock(jobsMutex, std::try_to_lock);
    if (!lock)
        return false;
    for (const JobTransfer& job : jobs) {
        if (!job.isRunning()) {
            Syslog::debug("%s: remove job, session id: %u", "PeriodicTask", job.session());
        }
    }
    jobs.remove_if([](const JobTransfer& job) { return !job.isRunning(); });
    serviceManager.showActivity(jobs.size(), accepting ? std::optional(listeningSessionId.load())
                                                       : std::nullopt);
    return true;
}

void ProxyConnection::signalProxyAllowConnection(const std::uint32_t& sessionId,
                                                 const std::uint32_t& second) {
    try {
        Syslog::notice("%s: session id: %u, timeout: %u", "signalProxyAllowConnection", sessionId,
                       currentListenTimeout());
        if (listener.valid() && listener.wait_for(3ms) != std::future_status::ready) {
            Syslog::warning("%s: listen transport busy, session id: %u",
                            "signalProxyAllowConnection", sessionId);
            return;
        }
        listeningSessionId = sessionId;
        listenCancel = false;
        launchAcceptance(sessionId, second);
    } catch (const std::exception& failure) {
        // A configuration value of the wrong type, or no thread to be had: costs this allowance.
        Syslog::error("%s: exception: %s, session id: %u", "signalProxyAllowConnection",
                      failure.what(), sessionId);
    }
}

void ProxyConnection::launchAcceptance(std::uint32_t sessionId, std::uint32_t second) {
    accepting = true;
    try {
        listener = std::async(std::launch::async, [this, sessionId, second] {
            const ClearAtEnd mark{accepting};
            return runAcceptance(sessionId, second);
        });
    } catch (...) {
        accepting = false;
        throw;
    }
}

bool ProxyConnection::runAcceptance(std::uint32_t sessionId, std::uint32_t second) {
    try {
        const bool result = actionCreateTransport(sessionId, second);
        listeningSessionId = 0;
        return result;
    } catch (const std::exception& failure) {
        // The listening session stays as it is: a disconnect of that session still cancels.
        Syslog::error("%s: exception: %s, session id: %u", "actionCreateTransport", failure.what(),
                      sessionId);
        throw;
    }
}

} // namespace Vorl

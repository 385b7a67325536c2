#include "proxy/proxy_connection.h"

#include <chrono>

namespace Vorl {

namespace {

using namespace std::chrono_literals;

struct ClearAtEnd {
    std::atomic<bool>& flag;
    ~ClearAtEnd() { flag = false; }
};

} // namespace

void ProxyConnection::signalProxyAllowConnection(const std::uint32_t& sessionId,
                                                 const std::uint32_t& second) {
    try {
        Syslog::notice("%s: session id: %u, timeout: %u", "signalProxyAllowConnection", sessionId,
                       currentListenTimeout());
        if (acceptanceTask.valid() && acceptanceTask.wait_for(3ms) != std::future_status::ready) {
            Syslog::warning("%s: listen transport busy, session id: %u",
                            "signalProxyAllowConnection", sessionId);
            return;
        }
        listeningSessionId = sessionId;
        listenCancel = false;
        launchAcceptance(sessionId, second);
    } catch (const std::exception& failure) {
        // A configuration value of the wrong type, or no new thread: this allowance is lost.
        Syslog::error("%s: exception: %s, session id: %u", "signalProxyAllowConnection",
                      failure.what(), sessionId);
    }
}

void ProxyConnection::launchAcceptance(std::uint32_t sessionId, std::uint32_t second) {
    accepting = true;
    try {
        acceptanceTask = std::async(std::launch::async, [this, sessionId, second] {
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
        // Deliberately keeps the listening session: a disconnect of that session still cancels.
        Syslog::error("%s: exception: %s, session id: %u", "actionCreateTransport", failure.what(),
                      sessionId);
        throw;
    }
}

} // namespace Vorl

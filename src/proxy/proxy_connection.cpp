#include "proxy/proxy_connection.h"

#include "common/run_state.h"
#include "proxy/proxy_dispatcher.h"
#include "proxy/work_directory.h"

#include <algorithm>
#include <chrono>

#include <unistd.h>

namespace Vorl {

namespace {

/// How long a stop waits for the answer to a bus call before it shuts the bus connection down.
constexpr std::chrono::seconds answerGrace{5};

} // namespace

ProxyConnection::ProxyConnection(DBus::Connection& connection, const std::string& configFile,
                                 const char* objectPath, const char* busName)
    : Syslog("vorl_proxy"), DBus::ObjectProxy(connection, objectPath, busName), config(configFile),
      home(findHomeDirectory()) {
    makeWorkDirectory(home);
    config.applyDebugLevel();
}

ProxyConnection::~ProxyConnection() {
    requestStop();
    listenCancel = true;
    // During a bus call the acceptance task checks neither flag, and an answer may take 25 seconds.
    if (acceptanceTask.valid() &&
        acceptanceTask.wait_for(answerGrace) != std::future_status::ready) {
        proxyDispatcher.hangUp();
        acceptanceTask.wait();
    }
    // While the daemon is seen on the bus, its shadow servers may live; afterwards none does.
    jobs.clear();
    // Each call with which the bus library removes its match rules may take 25 seconds as well.
    proxyDispatcher.hangUp();
}

bool ProxyConnection::reloadConfigWatcher() {
    return config.reload();
}

std::uint32_t ProxyConnection::currentListenTimeout() const {
    const int configured = config.current()->getInteger("listen:timeout", 10);
    return std::max(static_cast<std::uint32_t>(configured), serviceListenTimeout.load());
}

std::size_t ProxyConnection::jobMultiSession(const std::uint32_t& sessionId) const {
    return jobs.count(sessionId);
}

void ProxyConnection::signalProxyListenTimeout(const std::uint32_t& seconds) {
    Syslog::notice("%s: set timeout: %u", "signalProxyListenTimeout", seconds);
    serviceListenTimeout = seconds;
}

void ProxyConnection::signalVorlStopped() {
    Syslog::notice("%s, pid: %d", "signalVorlStopped", getpid());
    requestStop();
}

void ProxyConnection::signalSessionDisconnected(const std::uint32_t& sessionId,
                                                const std::uint32_t& pid,
                                                const std::string& remoteAddress) {
    Syslog::notice("%s: session id: %u, pid: %u, remote addr: `%s'", "signalSessionDisconnected",
                   sessionId, pid, remoteAddress.c_str());
    jobs.disconnect(sessionId, pid);
    if (sessionId == listeningSessionId)
        listenCancel = true;
}

} // namespace Vorl

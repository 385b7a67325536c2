#include "proxy/proxy_connection.h"

#include "common/call_failure.h"
#include "common/error.h"
#include "proxy/globals.h"
#include "proxy/work_directory.h"

#include <algorithm>

#include <sys/stat.h>
#include <unistd.h>

namespace Vorl {

ProxyConnection::ProxyConnection(DBus::Connection& connection, const std::string& configFile,
                                 const char* objectPath, const char* busName)
    : Syslog("vorl_proxy"), DBus::ObjectProxy(connection, objectPath, busName),
      configPath(configFile) {
    Json::Value root = readJson(configPath);
    if (!root.isObject()) {
        Syslog::error("%s: json not object, file: %s", "ProxyConnection", configPath.c_str());
        throw vorl_error("ProxyConnection");
    }
    config = std::make_shared<const JsonConfig>(std::move(root));
    home = findHomeDirectory();
    makeWorkDirectory(home);
    setDebugLevel(config->getString("debug:level", "info"));
}

ProxyConnection::~ProxyConnection() {
    proxyRunning = false;
    listenCancel = true;
    if (!listener.valid())
        return;
    // Inside a bus call it sees neither flag, and an answer may take 25 seconds.
    if (listener.wait_for(answerGrace) != std::future_status::ready)
        proxyDispatcher.hangUp();
    listener.wait();
}

bool ProxyConnection::reloadConfigWatcher() {
    struct stat status {};
    if (stat(configPath.c_str(), &status) < 0) {
        logCallFailed("reloadConfigWatcher", "stat");
        return false;
    }
    const std::time_t last = configTime.exchange(status.st_mtime);
    // The first look only learns the time. A file that does not parse is not tried again until it
    // changes.
    if (last == status.st_mtime || last == 0)
        return false;

    Json::Value root = readJson(configPath);
    if (!root.isObject()) {
        Syslog::error("%s: json not object, file: %s", "reloadConfigWatcher", configPath.c_str());
        return false;
    }
    auto fresh = std::make_shared<const JsonConfig>(std::move(root));
    // Before the exchange: a level that is no text leaves the old configuration in force.
    const std::string word = fresh->getString("debug:level", "info");
    {
        const std::scoped_lock lock(configMutex);
        config.swap(fresh);
    }
    setDebugLevel(word);
    Syslog::notice("%s: %s", "reloadConfigWatcher", "success");
    return true;
}

std::shared_ptr<const JsonConfig> ProxyConnection::configuration() const {
    const std::scoped_lock lock(configMutex);
    return config;
}

std::uint32_t ProxyConnection::currentListenTimeout() const {
    const int configured = configuration()->getInteger("listen:timeout", 10);
    return std::max(static_cast<std::uint32_t>(configured), serviceListenTimeout.load());
}

std::size_t ProxyConnection::jobMultiSession(const std::uint32_t& sessionId) const {
    const std::scoped_lock lock(jobsMutex);
    return static_cast<std::size_t>(std::ranges::count(jobs, sessionId, &JobTransfer::session));
}

void ProxyConnection::signalProxyListenTimeout(const std::uint32_t& seconds) {
    Syslog::notice("%s: set timeout: %u", "signalProxyListenTimeout", seconds);
    serviceListenTimeout = seconds;
}

void ProxyConnection::signalVorlStopped() {
    Syslog::notice("%s, pid: %d", "signalVorlStopped", getpid());
    proxyRunning = false;
}

void ProxyConnection::signalSessionDisconnected(const std::uint32_t& sessionId,
                                                const std::uint32_t& pid,
                                                const std::string& remoteAddress) {
    Syslog::notice("%s: session id: %u, pid: %u, remote addr: `%s'", "signalSessionDisconnected",
                   sessionId, pid, remoteAddress.c_str());
    const std::scoped_lock lock(jobsMutex); // waits for a bus call, if one is made under it
    jobs.remove_if([&](const JobTransfer& job) {
        return job.session() == sessionId && static_cast<std::uint32_t>(job.transportPid()) == pid;
    });
    if (sessionId == listeningSessionId)
        listenCancel = true;
}

} // namespace Vorl

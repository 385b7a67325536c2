#include "proxy/proxy_connection.h"

#include "common/call_failure.h"
#include "common/error.h"
#include "proxy/globals.h"
#include "proxy/work_directory.h"

#include <algorithm>
#include <chrono>
#include <iterator>

#include <sys/stat.h>
#include <unistd.h>

namespace Vorl {

namespace {

/// How long a stop waits for the answer to a bus call before it ends the bus connection.
constexpr std::chrono::seconds answerGrace{2};

} // namespace

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
    // Inside a bus call the acceptance task sees neither flag, and an answer may take 25 seconds.
    if (listener.valid())
        listener.wait_for(answerGrace);
    // So may each call by which the bus library takes its match rules back.
    proxyDispatcher.hangUp();
    if (listener.valid())
        listener.wait();
    stopAll(jobs);
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
    {
        const std::scoped_lock lock(disconnectsMutex);
        disconnects.emplace_back(sessionId, pid);
    }
    // The acceptance task may hold it during a bus call, and the sweep while a shadow server ends:
    // then the next sweep does it, and the signals behind this one need not wait.
    if (const std::unique_lock lock(jobsMutex, std::try_to_lock); lock)
        removeDisconnected();
    if (sessionId == listeningSessionId)
        listenCancel = true;
}

void ProxyConnection::removeDisconnected() {
    std::list<std::pair<std::uint32_t, std::uint32_t>> noted;
    {
        const std::scoped_lock lock(disconnectsMutex);
        noted.swap(disconnects);
    }
    std::list<JobTransfer> disconnected = takeJobs([&](const JobTransfer& job) {
        return std::ranges::count(noted, std::pair(job.session(), job.transportPid())) > 0;
    });
    stopAll(disconnected);
}

std::list<JobTransfer>
ProxyConnection::takeJobs(const std::function<bool(const JobTransfer&)>& wanted) {
    std::list<JobTransfer> taken;
    for (auto job = jobs.begin(); job != jobs.end();) {
        const auto next = std::next(job);
        if (wanted(*job))
            taken.splice(taken.end(), jobs, job);
        job = next;
    }
    return taken;
}

void ProxyConnection::stopAll(std::list<JobTransfer>& list) {
    for (JobTransfer& job : list)
        job.stop();
}

} // namespace Vorl

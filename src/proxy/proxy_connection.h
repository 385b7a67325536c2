#pragma once

#include "common/json_config.h"
#include "common/owned_file.h"
#include "common/transport_handle.h"
#include "logger"
#include "proxy/config_file.h"
#include "proxy/relay/job_list.h"
#include "proxy/service_manager.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <future>
#include <list>
#include <string>

#include <dbus-c++/dbus.h>
#include <vorl_proxy.h>

namespace Vorl {

struct PendingConnection;

/// The daemon's central object: the bus client of the session service. Owns the configuration, the
/// relay jobs and the acceptance task.
class ProxyConnection : public Syslog,
                        public net::qarel::vorl_proxy,
                        public DBus::IntrospectableProxy,
                        public DBus::ObjectProxy {
public:
    /// @param configFile a strict JSON file; watched from start() on
    /// @throws vorl_error("ProxyConnection") after an error line: the configuration is not a JSON
    ///         object, the home directory is missing, or the work directory cannot be trusted
    /// @throws std::filesystem::filesystem_error the work directory cannot be created
    ProxyConnection(DBus::Connection& connection, const std::string& configFile,
                    const char* objectPath, const char* busName);
    ProxyConnection(const ProxyConnection&) = delete;
    ProxyConnection& operator=(const ProxyConnection&) = delete;

    /// Ends the listener, waits for it, and ends every relay with its shadow server.
    ~ProxyConnection() override;

    // Bus signals: main thread, called by C functions of libdbus. They must not throw.
    void signalSessionCreated(const std::uint32_t& /*sessionId*/) override {}
    void signalSessionConnected(const std::uint32_t& /*first*/, const std::uint32_t& /*second*/,
                                const std::string& /*text*/) override {}
    void signalSessionShutdown(const std::uint32_t& /*sessionId*/) override {}
    void signalTransportDisplaySwitchTo(const std::int32_t& /*first*/,
                                        const std::int32_t& /*second*/,
                                        const std::string& /*text*/) override {}
    /// Ends the session's relay with that shadow server, and cancels a listener for the session.
    void signalSessionDisconnected(const std::uint32_t& sessionId, const std::uint32_t& pid,
                                   const std::string& remoteAddress) override;
    /// Starts an acceptance task for one client, unless the previous task is still running.
    /// @param second becomes part of the name of the session's SAM file
    void signalProxyAllowConnection(const std::uint32_t& sessionId,
                                    const std::uint32_t& second) override;
    /// Raises the listen timeout of later allowances; a value below the configured one does not.
    void signalProxyListenTimeout(const std::uint32_t& seconds) override;
    /// Stops the daemon.
    void signalVorlStopped() override;

    /// Checks the session service and runs the bus loop until the daemon is told to stop. Main
    /// thread. Returns at once when the service's answer is empty.
    /// @throws DBus::Error when the service does not answer
    void start();

    /// Reads the configuration file again when it has changed. Periodic task.
    /// @return true when a new configuration is in force
    bool reloadConfigWatcher();

    /// In seconds: the larger of the configured value and the session service's.
    [[nodiscard]] std::uint32_t currentListenTimeout() const;

    /// The number of the session's relays, including ended ones that have not been swept yet.
    [[nodiscard]] std::size_t jobMultiSession(const std::uint32_t& sessionId) const;

private:
    // main_loop.cpp
    void periodicTask();
    /// @return false when the job list is in use: try again at the next turn
    bool sweepFinishedJobs();

    // allowance.cpp
    void launchAcceptance(std::uint32_t sessionId, std::uint32_t second);
    bool runAcceptance(std::uint32_t sessionId, std::uint32_t second);

    // connection_setup.cpp: on the acceptance task's thread
    bool actionCreateTransport(const std::uint32_t& sessionId, const std::uint32_t& second);
    /// Reports the result to the session service. Empty if the listener could not be opened.
    FileDescriptor openListener(std::uint32_t sessionId);
    /// @return false when no client connects in time, after a cancel, or when the daemon stops
    bool waitForClient(int listeningFd, std::uint32_t sessionId) const;
    /// Starts the shadow server and the relay. On failure client and shadow server are released.
    bool createJob(PendingConnection& pending);
    /// Starts the shadow server for the session.
    /// @throws vorl_error, DBus::Error or Json::Exception when it cannot be started
    [[nodiscard]] TransportHandle requestRdpTransport(const std::string& socketPath,
                                                      OwnedFile& samFile,
                                                      const std::uint32_t& sessionId,
                                                      std::uint64_t ordinal);
    [[nodiscard]] std::list<std::string> prepareX11RdpArgs(const std::string& socketPath,
                                                           OwnedFile& samFile,
                                                           const JsonConfig& session,
                                                           bool builtIn) const;
    void registerJob(PendingConnection& pending, FileDescriptor& local);

    ConfigFile config;
    JobList jobs;
    std::filesystem::path home; // set by the constructor
    /// The session whose listener is or was last active. Set by the main thread, back to 0 by the
    /// acceptance task when it returns normally.
    std::atomic<std::uint32_t> listeningSessionId = 0;
    std::atomic<bool> listenCancel = false; // main thread; polled by the acceptance task
    std::atomic<bool> accepting = false;    // an acceptance task runs; only shown in the status
    std::future<bool> acceptanceTask;       // main thread only
    ServiceManager serviceManager;          // start(), then the periodic task
    std::atomic<std::uint32_t> serviceListenTimeout = 0; // main thread; read by the acceptance task
};

} // namespace Vorl

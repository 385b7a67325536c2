#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include <systemd/sd-bus.h>

namespace Vorl::Session {

/// What the service does about what comes over the bus. Each answers at once: the daemon waits. An
/// exception becomes an error reply.
struct BusHandlers {
    std::function<void()> daemonStarted;
    std::function<void()> daemonGone;
    std::function<void(std::uint32_t number, bool opened)> listenStarted;
    /// False lets the client go.
    std::function<bool(std::uint32_t number, const std::string& address)> clientConnected;
    /// The session's description, a JSON text.
    std::function<std::string(std::uint32_t number)> describe;
    std::function<void(std::uint32_t number, std::uint32_t pid)> relayStarted;
    /// A session's screen has been locked; its id at logind.
    std::function<void(const std::string& session)> locked;
    /// The commands of vorl_session(8): JSON texts.
    std::function<std::string()> status;
    std::function<std::string(const std::string& user)> ticket;
};

/// The service's place on the system bus: the object /net/qarel/vorl with the interface that
/// vorl_proxy is a client of (net.qarel.vorl.xml), and one more for the commands. Calls the
/// handlers from the event loop's thread.
class BusService {
public:
    /// @throws std::runtime_error without a bus, or when another session service has the name
    BusService(sd_event* loop, BusHandlers busHandlers);
    BusService(const BusService&) = delete;
    BusService& operator=(const BusService&) = delete;
    /// Sends what is left before the connection closes.
    ~BusService();

    void allow(std::uint32_t number);
    void setListenTimeout(std::uint32_t seconds);
    /// Ends a relay; pid 0 only closes the port that is open for the number.
    void disconnect(std::uint32_t number, std::uint32_t pid, const std::string& address);
    /// Ends the daemon with all that it has; under systemd it comes back.
    void endDaemon();

    /// Calls a method of the commands' interface at the service that runs.
    /// @param argument nothing is sent when it is empty
    /// @throws std::runtime_error with a sentence for a person
    [[nodiscard]] static std::string call(const char* method, const std::string& argument);

private:
    friend struct BusMethods;
    void require(int result, const char* what) const;
    void exportObjects();
    void watchScreenLocks();
    void follow(sd_bus_message* fromDaemon);

    BusHandlers handlers;
    sd_bus* bus = nullptr;
    sd_bus_track* daemon = nullptr; ///< none before its first call
};

} // namespace Vorl::Session

#pragma once

#include "session/admission.h"
#include "session/bus_service.h"
#include "session/configuration.h"
#include "session/desktop_search.h"
#include "session/front_hook.h"
#include "session/tickets.h"

#include <map>
#include <memory>

#include <systemd/sd-event.h>
#include <systemd/sd-login.h>

namespace Vorl::Session {

/// The running service: turns what logind, the daemon, the kernel and the clock tell into events of
/// the decisions, and carries out their actions. One thread, one event loop.
class Service {
public:
    /// @throws std::runtime_error without an event loop or a bus, see BusService
    explicit Service(std::filesystem::path configurationFile);
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    ~Service();

    /// Until SIGTERM or SIGINT, or the bus is lost. The exit status.
    int run();

private:
    using Sockets = std::vector<ClientSocket>;
    using Callback = void (Service::*)();

    BusHandlers handlers();
    void watch();
    template<Callback callback>
    static int call(sd_event_source* source, std::uint64_t now, void* service);

    void look();
    void readConfigurationFiles();
    void report(std::vector<std::string> found);
    [[nodiscard]] std::vector<std::string> daemonProblems() const;
    void tick();
    void count();
    void settle();
    void carryOut(const Action& action);
    void tellFront(const std::string& event, const Client& client, const std::string& token = {});
    void repeatToFront(Time now);
    void endTickets(const std::vector<Ticket>& tickets);

    void daemonStarted();
    bool clientConnected(std::uint32_t number, const std::string& address);
    std::string describe(std::uint32_t number);
    std::string describeDesktop();
    void relayStarted(std::uint32_t number, std::uint32_t pid);
    void followRelay(std::uint32_t number, pid_t pid);
    static int relayEnded(sd_event_source* source, int fd, std::uint32_t events, void* service);
    std::string status();
    std::string makeTicket(const std::string& user);

    const std::filesystem::path configurationFile;
    const std::filesystem::path runtimeDirectory;
    sd_event* loop = nullptr;
    sd_event_source* timer = nullptr;
    sd_login_monitor* logins = nullptr;
    std::unique_ptr<BusService> bus;
    std::unique_ptr<FrontHook> front;

    Admission admission;
    Tickets tickets;
    Configuration configuration; ///< as last read; without effect while `problems` says so
    DaemonAddress daemonAddress;
    std::optional<FoundDesktop> desktop;
    bool previousInstanceChecked = false;
    bool portRefused = false; ///< the daemon could not open its port when last told to
    std::map<std::uint32_t, sd_event_source*> relays; ///< by number: watch their shadow servers
    std::vector<std::string> problems;                ///< as last reported
    std::string reachable;                            ///< the same for the desktop
    std::string statusLine;                           ///< as last told to systemd
    /// At first late enough for the daemon to have closed the port of a service that has just
    /// stopped.
    Time nextLook = Clock::now() + std::chrono::milliseconds(500);
    Time nextCount; ///< absolute, so that no amount of other events puts it off
    Time nextRepeat;
};

} // namespace Vorl::Session

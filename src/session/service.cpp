#include "session/service.h"

#include "logger"
#include "session/audit.h"
#include "session/not_ready.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>

#include <sys/epoll.h>
#include <sys/syscall.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

namespace Vorl::Session {

using namespace std::chrono_literals;

namespace {

// Files are looked at that often: what has been fixed takes effect without a restart.
constexpr auto lookTime = 3s;
constexpr auto countTime = 250ms;
constexpr std::uint32_t listenSeconds = 86400;

std::filesystem::path runtimeDirectoryOf(const char* given) {
    return given == nullptr ? "/run/vorl_session" : given;
}

// Numbers that a previous instance of the service has not used: in hundredths of a second, the
// clock goes faster than connections come.
std::uint32_t firstNumber() {
    const auto time = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<std::uint32_t>(time / 10ms);
}

void require(int result, const char* what) {
    if (result < 0)
        throw std::runtime_error(std::string(what) + ": " + strerror(-result));
}

std::uint64_t toUsec(Time time) {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count());
}

} // namespace

Service::Service(std::filesystem::path file)
    : configurationFile(std::move(file)),
      runtimeDirectory(runtimeDirectoryOf(getenv("RUNTIME_DIRECTORY"))), admission(firstNumber()) {
    require(sd_event_default(&loop), "no event loop");
    watch();
    front = std::make_unique<FrontHook>(loop);
    bus = std::make_unique<BusService>(loop, handlers());
}

Service::~Service() {
    for (const auto& relay : relays)
        sd_event_source_disable_unref(relay.second);
    bus.reset();
    front.reset();
    sd_event_source_disable_unref(timer);
    sd_login_monitor_unref(logins);
    sd_event_unref(loop);
}

template<Service::Callback callback>
int Service::call(sd_event_source*, std::uint64_t, void* service) {
    (static_cast<Service*>(service)->*callback)();
    return 0;
}

BusHandlers Service::handlers() {
    return {.daemonStarted = [this] { daemonStarted(); },
            .daemonGone =
                [this] {
                    portRefused = false;
                    admission.daemonChanged(Clock::now());
                },
            .listenStarted =
                [this](std::uint32_t number, bool opened) {
                    portRefused = !opened;
                    admission.listenStarted(number, opened, Clock::now());
                },
            .clientConnected =
                [this](std::uint32_t number, const std::string& from) {
                    return clientConnected(number, from);
                },
            .describe = [this](std::uint32_t number) { return describe(number); },
            .relayStarted = [this](std::uint32_t number,
                                   std::uint32_t pid) { relayStarted(number, pid); },
            .locked = [this](const std::string& id) { admission.locked(id, Clock::now()); },
            .status = [this] { return status(); },
            .ticket = [this](const std::string& user) { return makeTicket(user); }};
}

// SIGTERM, SIGINT and SIGCHLD are blocked for it.
void Service::watch() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGTERM, SIGINT, SIGCHLD})
        sigaddset(&signals, signal);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    require(sd_event_add_signal(loop, nullptr, SIGTERM, nullptr, nullptr), "SIGTERM");
    require(sd_event_add_signal(loop, nullptr, SIGINT, nullptr, nullptr), "SIGINT");
    require(sd_event_add_time(loop, &timer, CLOCK_MONOTONIC, 0, 0, call<&Service::tick>, this),
            "a timer");
    // After each other event, with what it has led to. Replies to the daemon are sent by then.
    require(sd_event_add_post(
                loop, nullptr,
                [](sd_event_source*, void* service) {
                    static_cast<Service*>(service)->settle();
                    return 0;
                },
                this),
            "sd_event_add_post");
    require(sd_login_monitor_new("session", &logins), "logind's sessions cannot be watched");
    require(sd_event_add_io(
                loop, nullptr, sd_login_monitor_get_fd(logins), EPOLLIN,
                [](sd_event_source*, int, std::uint32_t, void* service) {
                    auto& self = *static_cast<Service*>(service);
                    sd_login_monitor_flush(self.logins);
                    self.look();
                    return 0;
                },
                this),
            "logind's sessions cannot be watched");
}

int Service::run() {
    sd_notify(0, "READY=1");
    const int result = sd_event_loop(loop);
    admission.stop(Clock::now());
    settle();
    return result == 0 ? 0 : 1;
}

void Service::tick() {
    const Time now = Clock::now();
    count();
    if (now >= nextLook)
        look();
    repeatToFront(now);
    admission.advance(now);
}

// Any problem closes the port. Connections end only with their session.
void Service::look() {
    SearchResult result;
    std::vector<std::string> alive;
    nextLook = Clock::now() + lookTime;
    try {
        const std::vector<LoginSession> sessions = graphicalSessions();
        for (const LoginSession& session : sessions)
            alive.push_back(session.id);
        readConfigurationFiles();
        result = searchDesktop(sessions, configuration.passwordFile,
                               desktop ? desktop->session.id : std::string());
    } catch (const NotReady& problem) {
        result.problems = {problem.what()};
    }
    desktop = std::move(result.found);
    std::optional<Admission::Desktop> wanted;
    if (desktop)
        wanted = {desktop->session.id, desktop->session.user};
    admission.setDesktop(wanted, alive, Clock::now());
    report(std::move(result.problems));
}

void Service::readConfigurationFiles() {
    configuration = readConfiguration(configurationFile);
    admission.setRules(configuration.rules);
    daemonAddress = readDaemonAddress(configuration.daemonConfiguration);
    const bool busy = !socketsOf(daemonAddress).empty();
    if (busy && !previousInstanceChecked) {
        Syslog::warning("%s: vorl_proxy has a port or connections that a previous instance of this "
                        "service let in: all of them are ended, and the port opens anew within "
                        "seconds",
                        "vorl_session");
        bus->endDaemon();
    }
    previousInstanceChecked = true;
}

void Service::report(std::vector<std::string> found) {
    for (const std::string& problem : daemonProblems())
        found.push_back(problem);
    std::ranges::sort(found);
    found.erase(std::unique(found.begin(), found.end()), found.end());
    for (const std::string& problem : found) {
        if (std::ranges::find(problems, problem) == problems.end())
            Syslog::notice("%s: %s", "vorl_session", problem.c_str());
    }
    problems = std::move(found);
    std::string now = "no session can be reached";
    if (desktop)
        now = nameOf(desktop->session) + " can be reached at " + daemonAddress.address + ":" +
              std::to_string(daemonAddress.port);
    if (now != reachable)
        Syslog::notice("%s: %s", "vorl_session", now.c_str());
    reachable = now;
}

std::vector<std::string> Service::daemonProblems() const {
    if (admission.unanswered(Clock::now()) && !portRefused)
        return {"vorl_proxy does not answer: systemctl start vorl_proxy"};
    if (desktop && portRefused)
        return {"vorl_proxy cannot open " + daemonAddress.address + ":" +
                std::to_string(daemonAddress.port) + ": is the port in use? (ss -ltnp)"};
    return {};
}

// The bytes of each client's connection.
void Service::count() {
    const std::vector<Client> clients = admission.clients();
    nextCount = Clock::now() + countTime;
    if (clients.empty())
        return;
    try {
        const Sockets sockets = socketsOf(daemonAddress);
        for (const Client& client : clients) {
            const auto socket = std::ranges::find_if(sockets, [&](const ClientSocket& candidate) {
                return candidate.address == client.address && candidate.port == client.port;
            });
            if (socket != sockets.end())
                admission.counted(client.number, socket->sent, socket->received, Clock::now());
        }
    } catch (const NotReady&) {
        nextLook = Clock::now(); // which reports it
    }
}

// Carries out what has been decided, and sets the clock for what comes next.
void Service::settle() {
    const Time now = Clock::now();
    endTickets(tickets.takeExpired(now));
    for (const Action& action : admission.takeActions())
        carryOut(action);
    // debian/vorl-session.postinst reads the number at the end of this line.
    const std::string line =
        reachable + "; connections: " + std::to_string(admission.clients().size());
    if (line != statusLine)
        sd_notifyf(0, "STATUS=%s", line.c_str());
    statusLine = line;
    Time next = std::min(nextLook, admission.nextDeadline());
    if (!admission.clients().empty())
        next = std::min(next, nextCount);
    sd_event_source_set_time(timer, toUsec(next));
    sd_event_source_set_enabled(timer, SD_EVENT_ONESHOT);
}

void Service::carryOut(const Action& action) {
    const Client& client = action.client;
    switch (action.what) {
    case Action::What::Allow:
        bus->setListenTimeout(listenSeconds);
        bus->allow(client.number);
        break;
    case Action::What::Cancel:
        bus->disconnect(client.number, 0, {});
        break;
    case Action::What::Opened:
        tellFront("open", client);
        break;
    case Action::What::Taken:
        tellFront("taken", client);
        break;
    case Action::What::Closed:
        tellFront("closed", client);
        break;
    case Action::What::Disconnect:
        bus->disconnect(client.number, static_cast<std::uint32_t>(client.pid), client.address);
        break;
    case Action::What::Shown:
        endTickets(tickets.takeUsed(client.user));
        audit(action, Clock::now());
        break;
    default:
        audit(action, Clock::now());
        break;
    }
}

void Service::daemonStarted() {
    portRefused = false;
    previousInstanceChecked = true;
    admission.daemonChanged(Clock::now());
}

bool Service::clientConnected(std::uint32_t number, const std::string& address) {
    std::uint16_t port = 0;
    const auto isTaken = [&](std::uint16_t candidate) {
        return std::ranges::any_of(admission.clients(), [&](const Client& client) {
            return client.address == address && client.port == candidate;
        });
    };
    for (const ClientSocket& socket : socketsOf(daemonAddress)) {
        if (socket.address == address && !isTaken(socket.port))
            port = socket.port;
    }
    return admission.clientConnected(number, address, port, Clock::now());
}

void Service::relayStarted(std::uint32_t number, std::uint32_t pid) {
    admission.relayStarted(number, static_cast<pid_t>(pid), Clock::now());
    followRelay(number, static_cast<pid_t>(pid));
}

// The end of a relay is not reported, but its shadow server ends with it.
void Service::followRelay(std::uint32_t number, pid_t pid) {
    const auto fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    sd_event_source* source = nullptr;
    if (fd < 0 || sd_event_add_io(loop, &source, fd, EPOLLIN, relayEnded, this) < 0) {
        if (fd >= 0)
            close(fd);
        admission.relayEnded(number, Clock::now());
        return;
    }
    sd_event_source_set_io_fd_own(source, 1);
    relays[number] = source;
}

int Service::relayEnded(sd_event_source* source, int, std::uint32_t, void* service) {
    auto& self = *static_cast<Service*>(service);
    const auto relay = std::ranges::find_if(
        self.relays, [&](const auto& candidate) { return candidate.second == source; });
    const std::uint32_t number = relay->first;
    self.relays.erase(relay);
    sd_event_source_disable_unref(source);
    self.count();
    self.admission.relayEnded(number, Clock::now());
    return 0;
}

} // namespace Vorl::Session

#include "session/bus_service.h"

#include "logger"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string_view>

namespace Vorl::Session {

namespace {

constexpr const char* busName = "net.qarel.vorl";
constexpr const char* objectPath = "/net/qarel/vorl";
constexpr const char* daemonInterface = "net.qarel.vorl";
constexpr const char* commandInterface = "net.qarel.vorl.session";
constexpr const char* sessionPath = "/org/freedesktop/login1/session";

} // namespace

/// The methods as sd-bus calls them. No exception may pass through its C code.
struct BusMethods {
    using Body = int (*)(BusService& self, sd_bus_message* call);

    template<Body body> static int run(sd_bus_message* call, void* service, sd_bus_error* error) {
        try {
            return body(*static_cast<BusService*>(service), call);
        } catch (const std::exception& problem) {
            return sd_bus_error_set(error, "net.qarel.vorl.Error", problem.what());
        }
    }

    static int test(BusService& self, sd_bus_message* call) {
        self.follow(call);
        const int sent = sd_bus_reply_method_return(call, "s", "ready");
        self.handlers.daemonStarted();
        return sent;
    }

    static int listenStarted(BusService& self, sd_bus_message* call) {
        std::uint32_t number = 0;
        int opened = 0;
        self.follow(call);
        sd_bus_message_read(call, "ub", &number, &opened);
        self.handlers.listenStarted(number, opened != 0);
        return sd_bus_reply_method_return(call, "");
    }

    static int clientConnected(BusService& self, sd_bus_message* call) {
        std::uint32_t number = 0;
        const char* address = "";
        self.follow(call);
        sd_bus_message_read(call, "us", &number, &address);
        if (!self.handlers.clientConnected(number, address))
            throw std::runtime_error("the client is not admitted");
        return sd_bus_reply_method_return(call, "");
    }

    static int describe(BusService& self, sd_bus_message* call) {
        std::uint32_t number = 0;
        self.follow(call);
        sd_bus_message_read(call, "u", &number);
        std::string description = self.handlers.describe(number);
        sd_bus_message* reply = nullptr;
        int result = sd_bus_message_new_method_return(call, &reply);
        if (result >= 0)
            result = sd_bus_message_sensitive(reply); // erased from memory when it is freed
        if (result >= 0)
            result = sd_bus_message_append(reply, "s", description.c_str());
        if (result >= 0)
            result = sd_bus_message_send(reply);
        sd_bus_message_unref(reply);
        explicit_bzero(description.data(), description.size());
        return result;
    }

    static int sessionConnected(BusService& self, sd_bus_message* call) {
        std::uint32_t number = 0;
        std::uint32_t pid = 0;
        const char* address = "";
        self.follow(call);
        sd_bus_message_read(call, "uus", &number, &pid, &address);
        self.handlers.relayStarted(number, pid);
        return sd_bus_reply_method_return(call, "");
    }

    static int status(BusService& self, sd_bus_message* call) {
        return sd_bus_reply_method_return(call, "s", self.handlers.status().c_str());
    }

    static int ticket(BusService& self, sd_bus_message* call) {
        const char* user = "";
        sd_bus_message_read(call, "s", &user);
        return sd_bus_reply_method_return(call, "s", self.handlers.ticket(user).c_str());
    }

    static int daemonGone(sd_bus_track*, void* service) {
        auto& self = *static_cast<BusService*>(service);
        // An empty one would be called for ever.
        self.daemon = sd_bus_track_unref(self.daemon);
        self.handlers.daemonGone();
        return 0;
    }

    // LockedHint of logind's session objects. Only becoming locked is of interest.
    static int propertiesChanged(sd_bus_message* signal, void* service, sd_bus_error*) {
        const char* interface = nullptr;
        const char* property = nullptr;
        char* session = nullptr;
        int value = 0;
        if (sd_bus_message_read(signal, "s", &interface) < 0 ||
            sd_bus_message_enter_container(signal, 'a', "{sv}") < 0)
            return 0;
        while (sd_bus_message_enter_container(signal, 'e', "sv") > 0) {
            sd_bus_message_read(signal, "s", &property);
            if (std::string_view(property) != "LockedHint")
                sd_bus_message_skip(signal, "v");
            else
                sd_bus_message_read(signal, "v", "b", &value);
            sd_bus_message_exit_container(signal);
        }
        if (value != 0 &&
            sd_bus_path_decode(sd_bus_message_get_path(signal), sessionPath, &session) > 0)
            static_cast<BusService*>(service)->handlers.locked(session);
        std::free(session);
        return 0;
    }

    static const sd_bus_vtable forDaemon[];
    static const sd_bus_vtable forCommands[];
};

const sd_bus_vtable BusMethods::forDaemon[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("vorlTest", "", "s", run<test>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("proxyListenStarted", "ub", "", run<listenStarted>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("proxyClientConnected", "us", "", run<clientConnected>,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("vorlSessionInfoJson", "u", "s", run<describe>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("proxySessionConnected", "uus", "", run<sessionConnected>,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL("signalProxyAllowConnection", "uu", 0),
    SD_BUS_SIGNAL("signalProxyListenTimeout", "u", 0),
    SD_BUS_SIGNAL("signalSessionDisconnected", "uus", 0),
    SD_BUS_SIGNAL("signalVorlStopped", "", 0),
    SD_BUS_VTABLE_END};

// Not SD_BUS_VTABLE_UNPRIVILEGED: for this process's account, root, alone.
const sd_bus_vtable BusMethods::forCommands[] = {
    SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Status", "", "s", run<status>, 0),
    SD_BUS_METHOD("Ticket", "s", "s", run<ticket>, SD_BUS_VTABLE_SENSITIVE), SD_BUS_VTABLE_END};

BusService::BusService(sd_event* loop, BusHandlers busHandlers) : handlers(std::move(busHandlers)) {
    require(sd_bus_open_system(&bus), "the system bus cannot be reached");
    require(sd_bus_attach_event(bus, loop, SD_EVENT_PRIORITY_NORMAL), "the event loop");
    // A lost bus ends the event loop; systemd starts the service again.
    sd_bus_set_exit_on_disconnect(bus, 1);
    // The end of the loop does not close the bus: what a stop decides is sent after it.
    sd_bus_set_close_on_exit(bus, 0);
    exportObjects();
    watchScreenLocks();
    // The name last: the daemon may call at once.
    const int named = sd_bus_request_name(bus, busName, 0);
    if (named == -EEXIST)
        throw std::runtime_error("another session service owns net.qarel.vorl on the bus: stop it");
    require(named, "the name net.qarel.vorl cannot be had on the bus");
}

BusService::~BusService() {
    sd_bus_track_unref(daemon);
    sd_bus_flush_close_unref(bus);
}

void BusService::exportObjects() {
    require(sd_bus_add_object_vtable(bus, nullptr, objectPath, daemonInterface,
                                     BusMethods::forDaemon, this),
            "sd_bus_add_object_vtable");
    require(sd_bus_add_object_vtable(bus, nullptr, objectPath, commandInterface,
                                     BusMethods::forCommands, this),
            "sd_bus_add_object_vtable");
}

void BusService::watchScreenLocks() {
    require(sd_bus_add_match_async(bus, nullptr,
                                   "type='signal',sender='org.freedesktop.login1',"
                                   "path_namespace='/org/freedesktop/login1/session',"
                                   "interface='org.freedesktop.DBus.Properties',"
                                   "member='PropertiesChanged',"
                                   "arg0='org.freedesktop.login1.Session'",
                                   BusMethods::propertiesChanged, nullptr, this),
            "sd_bus_add_match");
}

void BusService::require(int result, const char* what) const {
    if (result < 0)
        throw std::runtime_error(std::string(what) + ": " + strerror(-result));
}

void BusService::follow(sd_bus_message* fromDaemon) {
    if (daemon == nullptr)
        require(sd_bus_track_new(bus, &daemon, BusMethods::daemonGone, this), "sd_bus_track_new");
    sd_bus_track_add_sender(daemon, fromDaemon);
}

void BusService::allow(std::uint32_t number) {
    // The same number twice: the second one names a file, which must be nobody else's.
    sd_bus_emit_signal(bus, objectPath, daemonInterface, "signalProxyAllowConnection", "uu", number,
                       number);
}

void BusService::setListenTimeout(std::uint32_t seconds) {
    sd_bus_emit_signal(bus, objectPath, daemonInterface, "signalProxyListenTimeout", "u", seconds);
}

void BusService::disconnect(std::uint32_t number, std::uint32_t pid, const std::string& address) {
    sd_bus_emit_signal(bus, objectPath, daemonInterface, "signalSessionDisconnected", "uus", number,
                       pid, address.c_str());
}

void BusService::endDaemon() {
    sd_bus_emit_signal(bus, objectPath, daemonInterface, "signalVorlStopped", "");
}

std::string BusService::call(const char* method, const std::string& argument) {
    sd_bus* bus = nullptr;
    sd_bus_message* reply = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    const char* text = "";
    int result = sd_bus_open_system(&bus);
    if (result < 0)
        throw std::runtime_error(std::string("the system bus cannot be reached: ") +
                                 strerror(-result));
    const char* types = argument.empty() ? "" : "s";
    result = sd_bus_call_method(bus, busName, objectPath, commandInterface, method, &error, &reply,
                                types, argument.c_str());
    if (result >= 0)
        result = sd_bus_message_read(reply, "s", &text);
    std::string answer = text;
    std::string problem = error.message == nullptr ? strerror(-result) : error.message;
    if (sd_bus_error_has_names(&error, SD_BUS_ERROR_SERVICE_UNKNOWN,
                               SD_BUS_ERROR_NAME_HAS_NO_OWNER))
        problem = "vorl_session does not run: systemctl start vorl_session";
    else if (sd_bus_error_has_names(&error, SD_BUS_ERROR_UNKNOWN_INTERFACE,
                                    SD_BUS_ERROR_UNKNOWN_METHOD, SD_BUS_ERROR_UNKNOWN_OBJECT))
        problem = "another session service owns net.qarel.vorl on the bus: stop it";
    else if (sd_bus_error_has_name(&error, SD_BUS_ERROR_ACCESS_DENIED))
        problem = "only root may ask: try it with sudo";
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    sd_bus_flush_close_unref(bus);
    if (result < 0)
        throw std::runtime_error(problem);
    return answer;
}

} // namespace Vorl::Session

#include "bus/sender_accounts.h"

#include <utility>

#include <dbus-c++/dbus.h>
#include <unistd.h>

namespace Vorl {

namespace {

struct ReleaseMessage {
    void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using OwnedMessage = std::unique_ptr<DBusMessage, ReleaseMessage>;

DBusConnection* openSystemBus() {
    DBusError error = DBUS_ERROR_INIT;
    DBusConnection* const opened = dbus_bus_get_private(DBUS_BUS_SYSTEM, &error);
    if (opened == nullptr) {
        const DBus::Error failure(error.name, error.message);
        dbus_error_free(&error);
        throw failure;
    }
    dbus_connection_set_exit_on_disconnect(opened, FALSE); // the library would call exit(3)
    return opened;
}

} // namespace

struct SenderAccounts::Query {
    SenderAccounts* asker;
    std::string name;
};

void SenderAccounts::CloseConnection::operator()(DBusConnection* connection) const {
    dbus_connection_close(connection);
    dbus_connection_unref(connection);
}

void SenderAccounts::CancelCall::operator()(DBusPendingCall* call) const {
    dbus_pending_call_cancel(call);
    dbus_pending_call_unref(call);
}

SenderAccounts::SenderAccounts(std::string serviceName, std::function<void()> whenAnswered)
    : bus(openSystemBus()), service(std::move(serviceName)), ownAccount(geteuid()),
      answered(std::move(whenAnswered)), owner(service) {}

int SenderAccounts::takeAnswers() {
    dbus_connection_read_write(bus.get(), 0);
    while (dbus_connection_dispatch(bus.get()) == DBUS_DISPATCH_DATA_REMAINS) {
    }
    int fd = -1;
    return dbus_connection_get_unix_fd(bus.get(), &fd) ? fd : -1;
}

SenderAccounts::Verdict SenderAccounts::judge(const std::string& sender) {
    const Sender& from = find(sender);
    if (from.lookUp)
        return Verdict::Pending;
    if (!from.account)
        return Verdict::Denied;
    if (from.account == 0 || from.account == ownAccount)
        return Verdict::Allowed;
    if (owner.empty())
        return Verdict::Denied;
    const Sender& sessionService = find(owner);
    if (sessionService.lookUp)
        return Verdict::Pending;
    return sessionService.account == from.account ? Verdict::Allowed : Verdict::Denied;
}

std::optional<uid_t> SenderAccounts::accountOf(const std::string& sender) const {
    const auto found = senders.find(sender);
    return found == senders.end() ? std::nullopt : found->second.account;
}

void SenderAccounts::ownerChanged(const std::string& name, const std::string& now) {
    if (name == service) {
        owner = now;
        if (!owner.empty())
            find(owner);
        answered();
    } else if (name.starts_with(':') && !now.empty()) {
        find(name);
    } else if (const auto gone = senders.find(name); gone != senders.end()) {
        // Unique names are never used again.
        gone->second.hasLeft = true;
        if (!gone->second.lookUp)
            senders.erase(gone);
    }
}

const SenderAccounts::Sender& SenderAccounts::find(const std::string& name) {
    const auto [known, isNew] = senders.try_emplace(name);
    if (isNew)
        lookUp(name, known->second);
    return known->second;
}

void SenderAccounts::lookUp(const std::string& name, Sender& sender) {
    const OwnedMessage call(dbus_message_new_method_call(
        DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "GetConnectionUnixUser"));
    const char* argument = name.c_str();
    DBusPendingCall* pending = nullptr;
    // Without a timeout: the library's timeouts are for its own loop. Null when the bus is gone.
    if (!call ||
        !dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &argument, DBUS_TYPE_INVALID) ||
        !dbus_connection_send_with_reply(bus.get(), call.get(), &pending, DBUS_TIMEOUT_INFINITE) ||
        pending == nullptr)
        return;
    sender.lookUp.reset(pending);
    auto query = std::make_unique<Query>(Query{this, name});
    if (dbus_pending_call_set_notify(pending, &SenderAccounts::take, query.get(),
                                     [](void* data) { delete static_cast<Query*>(data); }))
        (void)query.release();
    else
        sender.lookUp.reset();
}

void SenderAccounts::take(DBusPendingCall* call, void* query) {
    const OwnedMessage reply(dbus_pending_call_steal_reply(call));
    const auto [asker, name] = *static_cast<const Query*>(query);
    asker->take(name, reply.get());
}

void SenderAccounts::take(const std::string& name, DBusMessage* reply) {
    Sender& sender = senders.at(name);
    dbus_uint32_t uid = 0;
    if (dbus_message_get_args(reply, nullptr, DBUS_TYPE_UINT32, &uid, DBUS_TYPE_INVALID))
        sender.account = uid;
    else if (name == owner && dbus_message_is_error(reply, DBUS_ERROR_NAME_HAS_NO_OWNER))
        owner.clear();
    sender.lookUp.reset();
    answered();
    if (!sender.account || sender.hasLeft)
        senders.erase(name); // asked again, should it be needed again
}

} // namespace Vorl

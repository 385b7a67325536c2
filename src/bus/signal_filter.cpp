#include "bus/signal_filter.h"

#include "bus/connection_handle.h"
#include "logger"

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <utility>

namespace Vorl {

namespace {

constexpr const char* function = "SignalFilter";
constexpr const char* service = "net.qarel.vorl"; // its interface has the same name

constexpr std::ptrdiff_t heldForEachSender = 1000;

struct Signal {
    const char* member;
    std::string_view types; // D-Bus type codes of the arguments in their order
};

constexpr Signal interfaceSignals[] = {
#include <interface_signals.inc> // generated from net.qarel.vorl.xml
};

bool beginsWithTypes(const DBus::Message& message, std::string_view types) {
    DBus::MessageIter argument = message.reader();
    return std::ranges::all_of(types, [&argument](char type) {
        const bool fits = argument.type() == type;
        ++argument;
        return fits;
    });
}

const DBus::SignalMessage& asSignal(const DBus::Message& message) {
    return static_cast<const DBus::SignalMessage&>(message); // the same object, with more members
}

void warnIgnored(const char* reason, const DBus::Message& signal) {
    Syslog::warning("%s: signal ignored, %s: %s, sender: %s", function, reason,
                    asSignal(signal).member(), signal.sender());
}

void warnForeign(const DBus::Message& signal, const std::optional<uid_t>& account) {
    if (!account)
        warnIgnored("the sender left before its account was known", signal);
    else
        Syslog::warning("%s: signal ignored, account not allowed: %s, sender: %s, uid: %u",
                        function, asSignal(signal).member(), signal.sender(), *account);
}

} // namespace

SignalFilter::SignalFilter(DBus::Connection& bus)
    : connection(bus), accounts(service, [this] { processHeldSignals(); }) {
    slot = new DBus::Callback<SignalFilter, bool, const DBus::Message&>(this,
                                                                        &SignalFilter::shouldDrop);
    connection.add_filter(slot);
    // Without an error to be filled in, the call does not wait for the bus.
    dbus_bus_add_match(handleOf(connection),
                       "type='signal',sender='org.freedesktop.DBus',"
                       "interface='org.freedesktop.DBus',member='NameOwnerChanged'",
                       nullptr);
}

SignalFilter::~SignalFilter() {
    connection.remove_filter(slot);
}

void SignalFilter::deliverHeldTo(std::function<void(const DBus::SignalMessage&)> receiver) {
    receive = std::move(receiver);
}

bool SignalFilter::shouldDrop(const DBus::Message& message) {
    noteOwnerChange(message);
    const auto* const signal = std::ranges::find_if(interfaceSignals, [&](const Signal& known) {
        return message.is_signal(service, known.member);
    });
    if (signal == std::ranges::end(interfaceSignals))
        return false;
    if (!beginsWithTypes(message, signal->types)) {
        warnIgnored("wrong arguments", message);
        return true;
    }
    const auto verdict = accounts.judge(message.sender());
    if (verdict == SenderAccounts::Verdict::Pending)
        hold(message);
    else if (verdict == SenderAccounts::Verdict::Denied)
        warnForeign(message, accounts.accountOf(message.sender()));
    return verdict != SenderAccounts::Verdict::Allowed;
}

void SignalFilter::noteOwnerChange(const DBus::Message& message) {
    // Only the bus itself may send under its own name.
    if (!message.is_signal(DBUS_INTERFACE_DBUS, "NameOwnerChanged") ||
        std::string_view(message.sender()) != DBUS_SERVICE_DBUS || !beginsWithTypes(message, "sss"))
        return;
    DBus::MessageIter argument = message.reader();
    const std::string name = argument.get_string();
    ++argument;
    ++argument; // the old owner
    accounts.ownerChanged(name, argument.get_string());
}

void SignalFilter::hold(const DBus::Message& signal) {
    const std::string_view sender = signal.sender();
    const auto count = std::ranges::count_if(
        held, [sender](const DBus::Message& other) { return other.sender() == sender; });
    if (count < heldForEachSender)
        held.push_back(signal);
    else
        warnIgnored("too many of a sender whose account is not known yet", signal);
}

void SignalFilter::processHeldSignals() {
    for (const DBus::Message& signal : std::exchange(held, {})) {
        const auto verdict = accounts.judge(signal.sender());
        if (verdict == SenderAccounts::Verdict::Pending)
            held.push_back(signal);
        else if (verdict == SenderAccounts::Verdict::Allowed)
            receive(asSignal(signal));
        else
            warnForeign(signal, accounts.accountOf(signal.sender()));
    }
}

} // namespace Vorl

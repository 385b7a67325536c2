#include "bus/signal_filter.h"

#include "logger"

#include <algorithm>
#include <string_view>

namespace Vorl {

namespace {

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

} // namespace

SignalFilter::SignalFilter(DBus::Connection& bus) : connection(bus) {
    slot =
        new DBus::Callback<SignalFilter, bool, const DBus::Message&>(this, &SignalFilter::swallows);
    connection.add_filter(slot);
}

SignalFilter::~SignalFilter() {
    connection.remove_filter(slot);
}

bool SignalFilter::swallows(const DBus::Message& message) {
    const auto* const signal = std::ranges::find_if(interfaceSignals, [&](const Signal& known) {
        return message.is_signal("net.qarel.vorl", known.member);
    });
    if (signal == std::ranges::end(interfaceSignals) || beginsWithTypes(message, signal->types))
        return false;
    Syslog::warning("%s: signal ignored, wrong arguments: %s, sender: %s", "SignalFilter",
                    signal->member, message.sender());
    return true;
}

} // namespace Vorl

#include "session/admission.h"

#include <algorithm>

namespace Vorl::Session {

using namespace std::chrono_literals;

namespace {

// A busy daemon drops an allowance, and does not say so to us.
constexpr auto allowAgain = 1s;
// A running daemon has answered by then.
constexpr auto answerLimit = 3s;
// The daemon looks every quarter of a second whether its listener has been cancelled.
constexpr auto cancelTime = 300ms;
constexpr auto portInUseTime = 5s;
// The daemon waits five seconds for its shadow server.
constexpr auto setUpLimit = 10s;
constexpr auto pictureLimit = 30s;
constexpr auto disconnectInterval = 2s;
constexpr std::size_t maxUnshown = 16;
constexpr std::size_t maxUnshownOfAddress = 4;

// With NLA, a client that has not proved the password was sent 2,030 bytes and has sent 998 at
// most (FreeRDP 2: 1,029), with the certificate that FreeRDP makes. A blank screen, the least there
// is to see, takes 6,301 and 5,053 with FreeRDP 3, 14,053 and 4,022 with FreeRDP 2.
constexpr std::uint64_t pictureSent = 5'000;
constexpr std::uint64_t pictureReceived = 2'500;

} // namespace

void Admission::setDesktop(const std::optional<Desktop>& reachable,
                           const std::vector<std::string>& alive, Time now) {
    for (Client& client : connected) {
        if (std::ranges::find(alive, client.session) == alive.end())
            end(client, "the session has ended", now);
    }
    if (desktop != reachable)
        closeListener(now);
    desktop = reachable;
    advance(now);
}

void Admission::locked(const std::string& session, Time now) {
    for (Client& client : connected) {
        if (rules.endOnLock && client.session == session)
            end(client, "the screen was locked", now);
    }
}

void Admission::daemonChanged(Time now) {
    endPending("vorl_proxy has ended");
    if (listening())
        actForListener(Action::What::Closed);
    listener.reset();
    notBefore = now;
    advance(now);
}

void Admission::listenStarted(std::uint32_t number, bool opened, Time now) {
    if (!listener || listener->number != number) {
        // An allowance that was repeated just as the first one was taken.
        Client stray;
        stray.number = number;
        if (opened)
            act(Action::What::Cancel, stray);
    } else if (opened) {
        listener->open = true;
        actForListener(Action::What::Opened);
    } else {
        listener.reset();
        notBefore = now + portInUseTime;
    }
}

bool Admission::clientConnected(std::uint32_t number, const std::string& address,
                                std::uint16_t port, Time now) {
    if (!listener || listener->number != number || !desktop)
        return false;
    actForListener(Action::What::Taken);
    listener.reset();
    Client client{.number = number,
                  .session = desktop->session,
                  .user = desktop->user,
                  .address = address,
                  .port = port,
                  .since = now,
                  .end = {},
                  .nextDisconnect = {}};
    if (rules.delayFailedAddresses &&
        (failures.mustWait(address, now) || unshownFrom(address) >= maxUnshownOfAddress)) {
        act(Action::What::Refused, client);
        notBefore = now + cancelTime;
        return false;
    }
    pending = std::move(client);
    return true;
}

bool Admission::mayDescribe(std::uint32_t number) const {
    return pending && pending->number == number && desktop && pending->session == desktop->session;
}

void Admission::notDescribed(std::uint32_t number, const std::string& why, Time now) {
    if (!pending || pending->number != number)
        return;
    endPending(why);
    notBefore = now + allowAgain;
    advance(now);
}

void Admission::relayStarted(std::uint32_t number, pid_t pid, Time now) {
    Client client{.number = number,
                  .session = {},
                  .user = {},
                  .address = {},
                  .since = now,
                  .end = {},
                  .nextDisconnect = {}};
    const bool known = pending && pending->number == number;
    if (known)
        client = *std::exchange(pending, std::nullopt);
    client.pid = pid;
    Client& relay = connected.emplace_back(std::move(client));
    if (!known || !desktop || relay.session != desktop->session)
        end(relay, "the session has ended", now);
    advance(now);
}

void Admission::relayEnded(std::uint32_t number, Time now) {
    const auto relay = std::ranges::find(connected, number, &Client::number);
    if (relay == connected.end())
        return;
    if (!relay->shown && (relay->end.empty() || now - relay->since >= pictureLimit))
        failures.failed(relay->address, now);
    act(relay->shown ? Action::What::Ended : Action::What::Unshown, *relay);
    connected.erase(relay);
    advance(now);
}

void Admission::counted(std::uint32_t number, std::uint64_t sent, std::uint64_t received,
                        Time now) {
    Client* client = find(number);
    if (client == nullptr)
        return;
    client->sent = sent;
    client->received = received;
    if (client->shown || !client->end.empty() || sent < pictureSent || received < pictureReceived)
        return;
    client->shown = true;
    failures.succeeded(client->address);
    act(Action::What::Shown, *client);
    applyPolicy(*client, now);
    advance(now);
}

void Admission::applyPolicy(Client& newcomer, Time now) {
    const std::size_t limit =
        rules.policy == Policy::Allow ? static_cast<std::size_t>(std::max(rules.limit, 1)) : 1;
    if (rules.policy == Policy::Replace) {
        for (Client& other : connected) {
            if (&other != &newcomer && other.shown && other.session == newcomer.session)
                end(other, "another client has taken its place", now);
        }
    } else if (shownIn(newcomer.session) > limit) {
        end(newcomer, "another client is connected", now);
    }
}

void Admission::stop(Time now) {
    desktop.reset();
    closeListener(now);
    for (Client& client : connected)
        end(client, "vorl_session stops", now);
}

void Admission::advance(Time now) {
    if (pending && now - pending->since >= setUpLimit)
        endPending("its shadow server did not start");
    endUnshown(now);
    for (Client& client : connected) {
        if (!client.end.empty() && now >= client.nextDisconnect) {
            client.nextDisconnect = now + disconnectInterval;
            act(Action::What::Disconnect, client);
        }
    }
    keepListening(now);
}

void Admission::endUnshown(Time now) {
    std::size_t rest = static_cast<std::size_t>(std::ranges::count_if(
        connected, [](const Client& client) { return !client.shown && client.end.empty(); }));
    for (Client& client : connected) { // the oldest first
        if (client.shown || !client.end.empty())
            continue;
        if (now - client.since >= pictureLimit)
            end(client, "it did not log in within 30 seconds", now);
        else if (rest > maxUnshown)
            end(client, "too many others have not logged in", now);
        else
            continue;
        --rest;
    }
}

void Admission::keepListening(Time now) {
    if (!wanted()) {
        closeListener(now);
        return;
    }
    if (!listener && now >= notBefore)
        listener = Listener{nextNumber++, false, now, now};
    if (listener && !listener->open && now >= listener->again) {
        listener->again = now + allowAgain;
        actForListener(Action::What::Allow);
    }
}

void Admission::closeListener(Time now) {
    if (!listener)
        return;
    actForListener(Action::What::Cancel);
    if (listener->open)
        actForListener(Action::What::Closed);
    listener.reset();
    notBefore = now + cancelTime;
}

void Admission::actForListener(Action::What what) {
    Client client;
    client.number = listener->number;
    if (desktop) {
        client.session = desktop->session;
        client.user = desktop->user;
    }
    act(what, client);
}

void Admission::end(Client& client, const std::string& why, Time now) {
    if (!client.end.empty())
        return;
    client.end = why;
    client.nextDisconnect = now + disconnectInterval;
    act(Action::What::Disconnect, client);
}

void Admission::endPending(const std::string& why) {
    if (!pending)
        return;
    pending->end = why;
    act(Action::What::Unshown, *pending);
    pending.reset();
}

Client* Admission::find(std::uint32_t number) {
    const auto found = std::ranges::find(connected, number, &Client::number);
    return found == connected.end() ? nullptr : &*found;
}

std::size_t Admission::shownIn(const std::string& session) const {
    return static_cast<std::size_t>(std::ranges::count_if(connected, [&](const Client& client) {
        return client.shown && client.end.empty() && client.session == session;
    }));
}

std::size_t Admission::unshownFrom(const std::string& address) const {
    return static_cast<std::size_t>(std::ranges::count_if(connected, [&](const Client& client) {
        return !client.shown && client.address == address;
    }));
}

bool Admission::full() const {
    if (!desktop || rules.policy == Policy::Replace)
        return false;
    const int limit = rules.policy == Policy::Allow ? std::max(rules.limit, 1) : 1;
    return shownIn(desktop->session) >= static_cast<std::size_t>(limit);
}

bool Admission::unanswered(Time now) const {
    return listener && !listener->open && now - listener->since >= answerLimit;
}

Time Admission::nextDeadline() const {
    Time next = Time::max();
    if (pending)
        next = std::min(next, pending->since + setUpLimit);
    if (listener && !listener->open)
        next = std::min(next, listener->again);
    if (!listener && wanted())
        next = std::min(next, notBefore);
    for (const Client& client : connected) {
        if (!client.end.empty())
            next = std::min(next, client.nextDisconnect);
        else if (!client.shown)
            next = std::min(next, client.since + pictureLimit);
    }
    return next;
}

} // namespace Vorl::Session

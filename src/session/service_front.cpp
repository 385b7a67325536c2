#include "session/service.h"

#include <chrono>

// What the service tells a front.
namespace Vorl::Session {

namespace {

constexpr std::chrono::seconds repeatTime{5};

} // namespace

void Service::tellFront(const std::string& event, const Client& client, const std::string& token) {
    front->tell(configuration.frontHook, event,
                {{"VORL_USER", client.user},
                 {"VORL_SESSION", client.session},
                 {"VORL_ADDRESS", daemonAddress.address},
                 {"VORL_PORT", std::to_string(daemonAddress.port)},
                 {"VORL_TICKET", token}});
}

// For a front that has been started anew, and forgets hosts that are silent. A program that is
// slower than that is not waited for by a growing queue.
void Service::repeatToFront(Time now) {
    if (!desktop || !admission.listening() || now < nextRepeat || !front->idle())
        return;
    nextRepeat = now + repeatTime;
    Client client;
    client.session = desktop->session.id;
    client.user = desktop->session.user;
    tellFront("repeat", client);
}

void Service::endTickets(const std::vector<Ticket>& ended) {
    for (const Ticket& ticket : ended) {
        Client client;
        client.user = ticket.user;
        tellFront("ticket-end", client, ticket.token);
    }
}

} // namespace Vorl::Session

#include "session/audit.h"

#include <systemd/sd-journal.h>

namespace Vorl::Session {

namespace {

constexpr const char* shownId = "2f8ad4f1c1a04a0f9d4be5d4c80e3b51";
constexpr const char* endedId = "b0b37e3b2c5a4f5e8e0c3f0d6a9d7c12";
constexpr const char* unshownId = "6c1d8a57e9f2436cb1a85d0f3e7b9a44";

void write(int priority, const char* id, const std::string& message, const Client& client,
           long long seconds) {
    sd_journal_send("MESSAGE=%s", message.c_str(), "PRIORITY=%d", priority, "MESSAGE_ID=%s", id,
                    "VORL_SESSION=%s", client.session.c_str(), "VORL_USER=%s", client.user.c_str(),
                    "VORL_ADDRESS=%s", client.address.c_str(), "VORL_PORT=%u",
                    unsigned{client.port}, "VORL_PID=%d", client.pid, "VORL_SECONDS=%lld", seconds,
                    "VORL_SENT=%llu", static_cast<unsigned long long>(client.sent),
                    "VORL_RECEIVED=%llu", static_cast<unsigned long long>(client.received),
                    "VORL_REASON=%s", client.end.c_str(), nullptr);
}

} // namespace

void audit(const Action& action, Time now) {
    const Client& client = action.client;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - client.since);
    const std::string desktop = client.user + "'s session " + client.session;
    const std::string time = " after " + std::to_string(seconds.count()) + " s";
    const std::string why = client.end.empty() ? "" : ": " + client.end;
    switch (action.what) {
    case Action::What::Shown:
        write(LOG_NOTICE, shownId, client.address + " sees " + desktop, client, seconds.count());
        break;
    case Action::What::Ended:
        write(LOG_NOTICE, endedId, client.address + " no longer sees " + desktop + time + why,
              client, seconds.count());
        break;
    case Action::What::Unshown:
        write(LOG_WARNING, unshownId,
              client.address + " never saw " + desktop + ", gone" + time + why, client,
              seconds.count());
        break;
    case Action::What::Refused:
        write(LOG_WARNING, unshownId,
              client.address + " was turned away from " + desktop + ": failed too often", client,
              seconds.count());
        break;
    default:
        break;
    }
}

} // namespace Vorl::Session

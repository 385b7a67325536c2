#include "session/service.h"

#include "logger"
#include "session/not_ready.h"
#include "session/password_file.h"

#include <chrono>
#include <cstring>
#include <ctime>

#include <json/json.h>

// What the service answers to the daemon and to the commands: JSON texts.
namespace Vorl::Session {

namespace {

std::string toText(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

Json::Value toJson(const Client& client, Time now) {
    const auto age = std::chrono::duration_cast<std::chrono::seconds>(now - client.since);
    Json::Value value;
    value["address"] = client.address;
    value["port"] = client.port;
    value["session"] = client.session;
    value["user"] = client.user;
    value["pid"] = client.pid;
    value["since"] = Json::Int64{std::time(nullptr) - age.count()};
    value["shown"] = client.shown;
    value["sent"] = Json::UInt64{client.sent};
    value["received"] = Json::UInt64{client.received};
    return value;
}

} // namespace

// Sessions and files may have changed since the port was opened.
std::string Service::describe(std::uint32_t number) {
    look();
    try {
        if (!admission.mayDescribe(number))
            throw NotReady("the session has ended");
        return describeDesktop();
    } catch (const std::exception& problem) {
        Syslog::warning("%s: %s", "vorl_session", problem.what());
        admission.notDescribed(number, problem.what(), Clock::now());
        throw;
    }
}

std::string Service::describeDesktop() {
    const std::filesystem::path copy =
        runtimeDirectory / ("authority-" + std::to_string(desktop->display.number));
    copyCookies(desktop->display, desktop->session, copy);
    Json::Value description;
    description["display"] = desktop->display.number;
    description["xauthfile"] = copy.string();
    description["username"] = desktop->session.user;
    description["uid"] = desktop->session.uid;
    description["home"] = desktop->session.home;
    description["sec:nla"] = true;
    // FreeRDP 3 takes no NLA where authentication is off.
    description["sec:auth"] = true;
    description["ntlm"] = findCredentials(configuration.passwordFile, desktop->session.user);
    return toText(description);
}

std::string Service::status() {
    look(); // what has just been fixed is not complained about
    Json::Value value;
    if (desktop) {
        value["session"] = desktop->session.id;
        value["user"] = desktop->session.user;
        value["display"] = desktop->display.number;
        value["listening"] = admission.listening();
        value["full"] = admission.full();
    }
    value["reachable"] = reachable;
    value["clients"] = Json::arrayValue;
    value["problems"] = Json::arrayValue;
    for (const Client& client : admission.clients())
        value["clients"].append(toJson(client, Clock::now()));
    for (const std::string& problem : problems)
        value["problems"].append(problem);
    return toText(value);
}

std::string Service::makeTicket(const std::string& user) {
    if (configuration.frontHook.empty())
        throw NotReady("no front would take a ticket: set \"front:hook\" in " +
                       configurationFile.string());
    std::string line = findCredentials(configuration.passwordFile, user);
    explicit_bzero(line.data(), line.size());
    const Ticket& ticket = tickets.make(user, Clock::now());
    Client client;
    client.user = user;
    tellFront("ticket", client, ticket.token);
    Json::Value value;
    value["token"] = ticket.token;
    value["seconds"] = Json::Int64{Tickets::lifetime.count()};
    value["address"] = configuration.frontAddress;
    return toText(value);
}

} // namespace Vorl::Session

#include "session/commands.h"

#include "common/accounts.h"
#include "session/bus_service.h"
#include "session/configuration.h"
#include "session/password_file.h"
#include "session/password_prompt.h"

#include <array>
#include <cstring>
#include <ctime>
#include <iostream>
#include <stdexcept>

#include <json/json.h>
#include <unistd.h>

namespace Vorl::Session::Commands {

namespace {

Json::Value ask(const char* method, const std::string& argument = {}) {
    Json::Value value;
    const std::string text = BusService::call(method, argument);
    if (!Json::Reader().parse(text, value))
        throw std::runtime_error("the service's answer is not JSON");
    return value;
}

std::string timeText(std::time_t time) {
    std::array<char, 32> text{};
    std::tm local{};
    std::strftime(text.data(), text.size(), "%F %T", localtime_r(&time, &local));
    return text.data();
}

std::string hostName() {
    std::array<char, 256> name{};
    gethostname(name.data(), name.size() - 1);
    return name.data();
}

void printClient(const Json::Value& client) {
    std::cout << "  " << client["address"].asString() << ":" << client["port"].asInt() << " at "
              << client["user"].asString() << "'s session " << client["session"].asString()
              << " since " << timeText(client["since"].asInt64())
              << (client["shown"].asBool() ? ", sees the picture" : ", does not see the picture")
              << '\n';
}

} // namespace

int password(const std::filesystem::path& configuration, const std::string& user, bool remove) {
    const std::filesystem::path file = readConfiguration(configuration).passwordFile;
    if (remove) {
        storeCredentials(file, user, {});
        return 0;
    }
    if (user.find_first_of(":\n") != std::string::npos || getpwnam(user.c_str()) == nullptr)
        throw std::runtime_error("there is no account " + user);
    std::string typed = askForPassword(user);
    std::string line = makeCredentials(user, typed);
    storeCredentials(file, user, line);
    explicit_bzero(typed.data(), typed.size());
    explicit_bzero(line.data(), line.size());
    return 0;
}

int status(bool asJson) {
    const Json::Value value = ask("Status");
    if (asJson) {
        std::cout << value << '\n';
        return value.isMember("session") ? 0 : 1;
    }
    std::cout << value["reachable"].asString();
    if (value["full"].asBool())
        std::cout << ", but not by others while somebody is connected";
    else if (value.isMember("listening") && !value["listening"].asBool())
        std::cout << " as soon as vorl_proxy listens";
    std::cout << '\n';
    for (const Json::Value& problem : value["problems"])
        std::cout << "  " << problem.asString() << '\n';
    std::cout << (value["clients"].empty() ? "Nobody is connected." : "Connected:") << '\n';
    for (const Json::Value& client : value["clients"])
        printClient(client);
    return value.isMember("session") ? 0 : 1;
}

int ticket(const std::string& user, bool asRdpFile) {
    const Json::Value value = ask("Ticket", user);
    const std::string cookie = "Cookie: mstshash=" + value["token"].asString();
    std::string address = value["address"].asString();
    if (address.empty())
        address = hostName();
    if (asRdpFile)
        std::cout << "full address:s:" << address << "\r\nusername:s:" << user
                  << "\r\nloadbalanceinfo:s:" << cookie << "\r\n";
    else
        std::cout << "xfreerdp /v:" << address << " /u:" << user
                  << " '/load-balance-info:" << cookie << "'\n";
    std::cerr << "valid for " << value["seconds"].asInt() << " seconds, once\n";
    return 0;
}

} // namespace Vorl::Session::Commands

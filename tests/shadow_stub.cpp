// Stands in for the shadow server. The daemon starts it with "/ipc-socket:PATH" and, for a special
// behaviour, "stub:MODE" among its arguments. What it was started with goes to standard output as
// a line of JSON, lists in it with ", " between.

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <json/json.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

std::string joined(char** texts) {
    std::string result;
    for (; *texts; ++texts) {
        result += (result.empty() ? "" : ", ") + std::string(*texts);
    }
    return result;
}

void report(char** argv) {
    Json::Value facts;
    facts["program"] = argv[0];
    facts["arguments"] = joined(argv + 1);
    facts["environment"] = joined(environ);
    for (int fd = 0; fd < 1024; ++fd) {
        if (fcntl(fd, F_GETFD) >= 0) {
            facts["descriptors"] = facts["descriptors"].asString() + std::to_string(fd) + " ";
        }
    }
    std::ifstream status("/proc/self/status"); // "Name:\tvalue", signals and accounts among them
    for (std::string name, value; status >> name && std::getline(status >> std::ws, value);) {
        facts[name] = value;
    }
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    std::cout << Json::writeString(builder, facts) << std::endl;
}

// Never waits for its reader: the daemon could wait for it meanwhile.
void echo(int fd) {
    std::string waiting;
    for (size_t sent = 0;;) {
        static char buffer[65521];
        const bool full = sent < waiting.size();
        pollfd ready{fd, static_cast<short>(POLLIN | (full ? POLLOUT : 0)), 0};
        poll(&ready, 1, -1);
        if (ready.revents & POLLIN) {
            const ssize_t size = read(fd, buffer, sizeof(buffer));
            if (size <= 0) {
                return;
            }
            waiting.append(buffer, static_cast<size_t>(size));
        }
        if (ready.revents & POLLOUT) {
            const ssize_t size =
                send(fd, waiting.data() + sent, waiting.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
            sent += size > 0 ? static_cast<size_t>(size) : 0;
        }
        if (sent == waiting.size()) {
            waiting.clear();
            sent = 0;
        }
    }
}

void serve(int fd, const std::string& mode) {
    if (mode == "hangup") { // ends as soon as it is connected
        return;
    }
    if (mode == "deaf") { // a send to it fails
        shutdown(fd, SHUT_RD);
    } else if (mode == "flood") { // sends for ever, and never reads
        static const char zeros[65536]{};
        while (write(fd, zeros, sizeof(zeros)) > 0) {
        }
    } else if (mode != "mute") { // neither reads nor sends
        echo(fd);
    }
    for (;;) { // the end of its client is not its own
        pause();
    }
}

} // namespace

int main(int, char** argv) {
    alarm(600); // no stub outlives its test by more
    report(argv);
    std::string mode;
    sockaddr_un address{AF_UNIX, {}};
    for (; *argv; ++argv) {
        const std::string text = *argv;
        if (text.starts_with("stub:")) {
            mode = text.substr(5);
        } else if (text.starts_with("/ipc-socket:")) {
            std::strncpy(address.sun_path, text.c_str() + 12, sizeof(address.sun_path) - 1);
        }
    }
    if (mode == "exit") { // at once
        return 3;
    }
    if (mode == "stubborn" || mode == "refuse") { // outlives SIGTERM, and says that it came
        std::signal(SIGTERM, [](int) { std::cout << "SIGTERM" << std::endl; });
    } else if (mode == "slow") { // takes a second to go
        std::signal(SIGTERM, [](int) { alarm(1); });
    }
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    if (mode == "never" || // no socket, also where something else is in its place
        bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        pause();
    } else if (mode == "refuse") { // a socket, and no one listens
        sleep(4);
    } else if (listen(listener, 1) == 0) {
        serve(accept(listener, nullptr, nullptr), mode);
    }
    return 4;
}

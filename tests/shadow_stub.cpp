// A stand-in for the shadow server: listens on the socket of "/ipc-socket:PATH" and behaves as the
// argument "stub:MODE" says. Prints what it was started with on standard output, one "name:\tvalue"
// a line, and then "ready" on standard error.

#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr unsigned patience = 600; // seconds until a stub ends by itself

std::string joined(char** texts) {
    std::string result;
    for (; *texts; ++texts)
        result += (result.empty() ? "" : ", ") + std::string(*texts);
    return result;
}

void report(char** argv) {
    std::cout << "\nprogram:\t" << argv[0] << "\narguments:\t" << joined(argv + 1)
              << "\nenvironment:\t" << joined(environ) << "\ndescriptors:\t";
    for (int fd = 0; fd < 1024; ++fd)
        std::cout << (fcntl(fd, F_GETFD) < 0 ? "" : std::to_string(fd) + " ");
    // Signals, accounts, umask and pid.
    std::cout << '\n' << std::ifstream("/proc/self/status").rdbuf() << std::flush;
    std::cerr << "ready" << std::endl;
}

volatile std::sig_atomic_t leaving = 0; // set by SIGTERM in the mode "slow"

char buffer[65521];

// Reading never waits for writing: the daemon may wait for the reading meanwhile.
void echo(int fd) {
    std::string queue;
    for (size_t at = 0;; alarm(leaving ? 1 : patience)) {
        pollfd entry{fd, static_cast<short>(queue.empty() ? POLLIN : POLLIN | POLLOUT), 0};
        poll(&entry, 1, -1);
        const ssize_t size = recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT);
        if (size == 0)
            return;
        queue.append(buffer, static_cast<size_t>(size < 0 ? 0 : size));
        const ssize_t sent = send(fd, queue.data() + at, queue.size() - at, MSG_DONTWAIT);
        at += static_cast<size_t>(sent < 0 ? 0 : sent);
        if (at == queue.size())
            queue.clear(), at = 0;
    }
}

void serve(int fd, const std::string& mode) {
    if (mode == "deaf") { // a send to it fails
        shutdown(fd, SHUT_RD);
    } else if (mode == "flood") { // sends for ever, and never reads
        while (write(fd, buffer, sizeof(buffer)) > 0) {
        }
    } else if (mode != "mute") { // neither reads nor sends
        echo(fd);
    }
    for (;;) // the end of its client is not its own
        pause();
}

// Makes a listener whose queue is full, under a name of its own until it is so.
int listenWithFullQueue(const sockaddr_un& address) {
    sockaddr_un own = address;
    std::strcat(own.sun_path, "x");
    const auto* name = reinterpret_cast<const sockaddr*>(&own);
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    if (bind(listener, name, sizeof(own)) != 0 || listen(listener, 0) != 0 ||
        connect(socket(AF_UNIX, SOCK_STREAM, 0), name, sizeof(own)) != 0 ||
        std::rename(own.sun_path, address.sun_path) != 0)
        abort();
    return listener;
}

} // namespace

int main(int, char** argv) {
    alarm(patience);
    report(argv);
    std::string mode;
    sockaddr_un address{AF_UNIX, {}};
    for (; *argv; ++argv) {
        if (std::strncmp(*argv, "stub:", 5) == 0)
            mode = *argv + 5;
        else if (std::strncmp(*argv, "/ipc-socket:", 12) == 0)
            std::strncpy(address.sun_path, *argv + 12, sizeof(address.sun_path) - 1);
    }
    if (mode == "exit") // at once
        return 3;
    std::signal(SIGPIPE, SIG_IGN);
    if (mode == "stubborn" || mode == "refuse") // outlives SIGTERM, and says that it came
        std::signal(SIGTERM, [](int) { std::cout << "SIGTERM" << std::endl; });
    if (mode == "slow") // takes a second to go
        std::signal(SIGTERM, [](int) {
            leaving = 1;
            alarm(1);
        });
    if (mode == "full" || mode == "crowded") { // until it takes the one that filled the queue
        const int listener = listenWithFullQueue(address);
        mode == "full" ? pause() : static_cast<int>(sleep(1));
        accept(listener, nullptr, nullptr);
        serve(accept(listener, nullptr, nullptr), mode);
    }
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    if (mode == "never" || // no socket; nor where something else is in its place
        bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0)
        pause();
    else if (mode == "late" || mode == "refuse") // a socket, and no one listens
        sleep(mode == "late" ? 1 : 7);
    if (mode == "refuse" || mode == "bound")
        return 4;
    if (listen(listener, 1) == 0 && mode != "hangup")
        serve(accept(listener, nullptr, nullptr), mode);
    else // ends as soon as it is connected
        accept(listener, nullptr, nullptr);
    return 4;
}

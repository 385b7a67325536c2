// The daemon's relay without the daemon: a listener that takes any number of clients at any time,
// gives each socket the daemon's options and each connection a job, and sweeps ended jobs as the
// daemon does.

#include "common/file_descriptor.h"
#include "common/json_config.h"
#include "common/run_state.h"
#include "common/sockets.h"
#include "proxy/relay/client_socket_options.h"
#include "proxy/relay/job_list.h"

#include <cstdio>
#include <cstdlib>
#include <future>

#include <poll.h>

namespace {

constexpr int backlog = 128; // the benchmark connects a hundred clients in a row
constexpr int sweepMilliseconds = 350;

/// Stands for a shadow server that has already ended: there is none to be signalled.
Vorl::TransportHandle endedTransport() {
    std::promise<int> status;
    status.set_value(0);
    return {0, status.get_future()};
}

void startJob(int listening, const std::string& socketPath, Vorl::JobList& jobs) {
    Vorl::FileDescriptor client(Vorl::Socket::tcpAccept(listening));
    Vorl::FileDescriptor local(Vorl::Socket::unixConnect(socketPath));
    if (!client || !local)
        return;
    const Vorl::JsonConfig settings{Json::objectValue}; // every key has its default
    Vorl::setClientSocketOptions(client.get(), settings);
    Vorl::TransportHandle transport = endedTransport();
    Vorl::SocketFile noSocket{""};
    Vorl::OwnedFile noSam{""};
    jobs.add(client, local, noSocket, noSam, transport, 0, [](const Vorl::JobTransfer&) {});
}

} // namespace

int main(int argc, char* argv[]) {
    if (argc != 3) {
        std::fputs("usage: vorl_bench_relay PORT SOCKET\n", stderr);
        return EXIT_FAILURE;
    }
    Vorl::startRunning();
    const auto port = static_cast<std::uint16_t>(std::atoi(argv[1]));
    const Vorl::FileDescriptor listening(Vorl::Socket::tcpListen("0.0.0.0", port, backlog));
    if (!listening) {
        std::fprintf(stderr, "vorl_bench_relay: port %s is in use\n", argv[1]);
        return EXIT_FAILURE;
    }
    Vorl::JobList jobs;
    for (;;) {
        pollfd entry{listening.get(), POLLIN, 0};
        if (poll(&entry, 1, sweepMilliseconds) > 0)
            startJob(listening.get(), argv[2], jobs);
        (void)jobs.sweep();
    }
}

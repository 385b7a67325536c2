// The daemon's relay without the daemon: a listener that takes any number of clients at any time,
// gives each socket the daemon's policy and each connection a JobTransfer, and sweeps ended jobs as
// the daemon does. SIGUSR1 ends all jobs, as a disconnect by the session service would.

#include "common/file_descriptor.h"
#include "common/json_config.h"
#include "common/sockets.h"
#include "proxy/relay/client_socket_options.h"
#include "common/run_state.h"
#include "proxy/relay/job_transfer.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <list>

#include <poll.h>
#include <sys/signalfd.h>

namespace {

constexpr int backlog = 128; // the benchmark connects a hundred clients in a row
constexpr int sweepMilliseconds = 350;

/// Stands for a shadow server that has already ended: there is none to be signalled.
Vorl::TransportHandle endedTransport() {
    std::promise<int> status;
    status.set_value(0);
    return {0, status.get_future()};
}

/// Before the first thread, so that no thread takes the signal in another way.
Vorl::FileDescriptor holdSignal(int number) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, number);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return Vorl::FileDescriptor(signalfd(-1, &signals, SFD_CLOEXEC));
}

class Relay {
public:
    Relay(int listeningFd, std::string path)
        : listening(listeningFd), socketPath(std::move(path)) {}

    [[noreturn]] void run() {
        const Vorl::FileDescriptor endJobs = holdSignal(SIGUSR1);
        pollfd entries[] = {{listening, POLLIN, 0}, {endJobs.get(), POLLIN, 0}};
        for (;;) {
            (void)poll(entries, 2, sweepMilliseconds);
            if (entries[0].revents != 0)
                admit();
            if (entries[1].revents != 0) {
                signalfd_siginfo ignored{};
                (void)!::read(endJobs.get(), &ignored, sizeof ignored);
                jobs.clear();
            }
            jobs.remove_if([](const Vorl::JobTransfer& job) { return !job.isRunning(); });
        }
    }

private:
    void admit() {
        Vorl::FileDescriptor client(Vorl::Socket::tcpAccept(listening));
        if (!client)
            return;
        Vorl::setClientSocketOptions(client.get(), settings);
        Vorl::FileDescriptor local(Vorl::Socket::unixConnect(socketPath));
        if (!local)
            return;
        jobs.emplace_back(client.get(), local.get(), "", "", endedTransport(), 0);
        client.release();
        local.release();
    }

    const int listening;
    const std::string socketPath;
    const Vorl::JsonConfig settings{Json::objectValue}; // every key has its default
    std::list<Vorl::JobTransfer> jobs;
};

} // namespace

int main(int argc, char* argv[]) {
    if (argc != 3) {
        std::fputs("usage: vorl_bench_relay PORT SOCKET\n", stderr);
        return EXIT_FAILURE;
    }
    Vorl::proxyRunning = true;
    const auto port = static_cast<std::uint16_t>(std::atoi(argv[1]));
    const Vorl::FileDescriptor listening(Vorl::Socket::tcpListen("0.0.0.0", port, backlog));
    if (!listening) {
        std::fprintf(stderr, "vorl_bench_relay: port %s is in use\n", argv[1]);
        return EXIT_FAILURE;
    }
    Relay(listening.get(), argv[2]).run();
}

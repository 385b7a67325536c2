#include "common/run_state.h"
#include "fixtures/daemon_test.h"
#include "proxy/relay/job_transfer.h"

#include <future>

#include <sys/ioctl.h>

namespace VorlTest {

class ShadowFault : public DaemonTest {
protected:
    // Waits until what comes in for a client that does not read has come to a stand.
    static void expectFull(const FileDescriptor& client) {
        int now = 0, before = -1;
        EXPECT_TRUE(eventually([&] {
            before = std::exchange(now, before);
            ioctl(client.get(), FIONREAD, &now);
            std::this_thread::sleep_for(100ms);
            return now > 0 && now == before;
        }));
    }
};

TEST_F(ShadowFault, AFloodToAClientThatDoesNotReadHoldsNothingUp) {
    start(stub("flood"));
    const FileDescriptor first = open(7);
    expectFull(first);
    service->signalSessionDisconnected(7, shadowPid(), "");
    service->signalProxyListenTimeout(1);
    EXPECT_TRUE(
        journal.saw({"JobTransferStopped: child ended, *", "signalProxyListenTimeout: *"}, 3s));
    service.answer("proxySessionConnected", Answer::Error); // lets the client go while it is full
    allow(7);
    const FileDescriptor second = connectTo(port);
    EXPECT_TRUE(journal.saw({"actionCreateTransport: exception: as told, session id: 7"}));
    service.answer("proxySessionConnected", Answer::Reply);
    const FileDescriptor third = open(8);
    expectFull(third);
    daemon.process->signal(SIGTERM);
    EXPECT_EQ(daemon.process->wait(5s), 0);
    EXPECT_EQ(journal.count("JobTransfer: job stopped, session id: ?, result: unknown"), 2u);
}

TEST_F(ShadowFault, OneThatDoesNotEndIsKilledAfterAGrace) {
    start(stub("stubborn"));
    const std::string before = daemon.resources();
    FileDescriptor client = open();
    client.reset();
    const std::vector<std::string> killed = {
        "JobTransferStopped: kill transport, pid: *",
        "JobTransferStopped: transport does not end, killed, pid: *",
        "JobTransferStopped: child ended, pid: *, killed by signal: 9"};
    EXPECT_TRUE(journal.saw(killed));
    EXPECT_TRUE(holds(before));
    journal.forget();
    std::vector<FileDescriptor> clients;
    for (uint32_t session = 1; session <= 4; ++session)
        clients.push_back(open(session, session));
    kill(static_cast<pid_t>(shadowPid()), SIGSTOP);
    daemon.process->signal(SIGTERM);
    EXPECT_EQ(daemon.process->wait(9s), 0) << "the graces run at once";
    EXPECT_TRUE(journal.saw(killed));
}

TEST_F(ShadowFault, OneThatEndsByItselfIsNotSignalled) {
    start(stub("exit"));
    const std::string before = daemon.resources();
    allow();
    EXPECT_TRUE(ends(connectTo(port)));
    EXPECT_TRUE(journal.saw({"actionCreateTransport: child ended, pid: *, exit code: 3"}));
    configure(stub("hangup"));
    stop();
    start(stub("hangup"));
    EXPECT_TRUE(ends(open()));
    EXPECT_TRUE(journal.saw({"JobTransferStopped: child ended, pid: *, exit code: 4"}));
    EXPECT_EQ(journal.count("JobTransferStopped: kill transport, *"), 0u);
    EXPECT_TRUE(holds(before));
}

TEST_F(ShadowFault, OneThatRefusesDoesNotKeepTheDaemonFromStopping) {
    start(stub("refuse"));
    allow();
    EXPECT_TRUE(ends(connectTo(port)));
    daemon.process->signal(SIGTERM);
    EXPECT_EQ(daemon.process->wait(2500ms), 0) << "before the shadow server ends by itself";
    EXPECT_TRUE(journal.saw({"*: transport not started, *", "*: child ended, *"}));
}

TEST_F(ShadowFault, AnEndIsSeenWhileTheOtherSideTakesNothing) {
    start(stub("mute"));
    FileDescriptor client = open();
    const std::string piece(512, 'x');
    for (int i = 0; i < 150; ++i) { // more than the shadow server's socket takes, less than all do
        EXPECT_EQ(send(client.get(), piece.data(), piece.size(), MSG_NOSIGNAL), 512);
        std::this_thread::sleep_for(1ms); // small chunks take the most room
    }
    client.reset();
    EXPECT_TRUE(journal.saw({"JobTransfer: job stopped, *", "JobTransferStopped: child ended, *"}));
}

// With a small buffer to the client the relay thread stands in the middle of a send.
TEST(RelayJob, EndsWhileItsSendIsBlocked) {
    Journal journal;
    Vorl::proxyRunning = true;
    for (const bool dropped : {false, true}) {
        const FileDescriptor listener = boundSocket("127.0.0.1", 0);
        listen(listener.get(), 1);
        sockaddr_in address{};
        socklen_t size = sizeof(address);
        getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size);
        FileDescriptor client = connectTo(ntohs(address.sin_port));
        const int accepted = accept(listener.get(), nullptr, nullptr);
        const int small = 4096;
        setsockopt(accepted, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
        int local[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, local), 0);
        const FileDescriptor shadowServer(local[1]);
        fcntl(local[1], F_SETFL, O_NONBLOCK);
        std::promise<int> ended;
        ended.set_value(0);
        auto job = std::make_unique<Vorl::JobTransfer>(
            accepted, local[0], "", "", Vorl::TransportHandle(0, ended.get_future()), 7);
        const std::string flood(1 << 16, 'x');
        for (int idle = 0; idle < 20; std::this_thread::sleep_for(10ms)) // until nothing moves
            idle = send(local[1], flood.data(), flood.size(), MSG_NOSIGNAL) > 0 ? 0 : idle + 1;
        if (dropped)
            job->dropClient();
        const auto gone = std::async(std::launch::async, [&job] { job.reset(); });
        EXPECT_EQ(gone.wait_for(5s), std::future_status::ready) << dropped;
        if (!dropped) {
            EXPECT_EQ(journal.count("*send failed*"), 0u) << "the end of a job is no fault";
        }
        client.reset(); // releases a send that would hold up the test
    }
}

} // namespace VorlTest

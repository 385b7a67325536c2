#include "fixtures/stage.h"

#include <sys/ioctl.h>

namespace VorlTest {

class ShadowFault : public Stage {
protected:
    // Waits until what comes in for a client that does not read has come to a stand.
    static void expectFull(const Descriptor& client) {
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
    const Descriptor first = open(7);
    expectFull(first);
    service->signalSessionDisconnected(7, shadowPid(), "");
    service->signalProxyListenTimeout(1);
    EXPECT_TRUE(
        journal.saw({"JobTransferStopped: child ended, *", "signalProxyListenTimeout: *"}, 3s));
    service.answer("proxySessionConnected", Answer::Error); // lets the client go while it is full
    allow(7);
    const Descriptor second = connectTo(port);
    EXPECT_TRUE(journal.saw({"actionCreateTransport: exception: as told, session id: 7"}));
    service.answer("proxySessionConnected", Answer::Reply);
    const Descriptor third = open(8);
    expectFull(third);
    daemon.process->signal(SIGTERM);
    EXPECT_EQ(daemon.process->wait(5s), 0);
    EXPECT_EQ(journal.count("JobTransfer: job stopped, session id: ?, result: unknown"), 2u);
}

TEST_F(ShadowFault, OneThatDoesNotEndIsKilledAfterAGrace) {
    start(stub("stubborn"));
    const std::string before = daemon.holdings();
    Descriptor client = open();
    client.reset();
    const std::vector<std::string> killed = {
        "JobTransferStopped: kill transport, pid: *",
        "JobTransferStopped: transport does not end, killed, pid: *",
        "JobTransferStopped: child ended, pid: *, killed by signal: 9"};
    EXPECT_TRUE(journal.saw(killed));
    EXPECT_TRUE(holds(before));
    journal.forget();
    client = open();
    kill(static_cast<pid_t>(shadowPid()), SIGSTOP);
    daemon.process->signal(SIGTERM);
    EXPECT_EQ(daemon.process->wait(10s), 0);
    EXPECT_TRUE(journal.saw(killed));
}

TEST_F(ShadowFault, OneThatEndsByItselfIsNotSignalled) {
    start(stub("exit"));
    const std::string before = daemon.holdings();
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
    EXPECT_EQ(daemon.process->wait(8s), 0);
    EXPECT_TRUE(journal.saw({"*: transport not started, *", "*: child ended, *"}));
}

TEST_F(ShadowFault, AnEndIsSeenWhileTheOtherSideTakesNothing) {
    start(stub("mute"));
    Descriptor client = open();
    const std::string piece(512, 'x');
    for (int i = 0; i < 150; ++i) { // more than the shadow server's socket takes, less than all do
        EXPECT_EQ(send(client.get(), piece.data(), piece.size(), MSG_NOSIGNAL), 512);
        std::this_thread::sleep_for(1ms); // small chunks take the most room
    }
    client.reset();
    EXPECT_TRUE(journal.saw({"JobTransfer: job stopped, *", "JobTransferStopped: child ended, *"}));
}

} // namespace VorlTest

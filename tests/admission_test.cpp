#include "fixtures/daemon_test.h"

#include <netinet/tcp.h>

namespace VorlTest {

class Admission : public DaemonTest {
protected:
    bool isClosed() {
        return eventually([this] { return !connectTo(port, 0ms); });
    }

    const std::string task = "actionCreateTransport: ";
    const std::string admit = "signalProxyAllowConnection: ";
};

TEST_F(Admission, TakesOneAllowanceAtATime) {
    start();
    allow(7);
    EXPECT_FALSE(boundSocket("127.0.0.9", port)) << "it listens on every address";
    service->signalProxyAllowConnection(8, 1);
    service->signalProxyAllowConnection(7, 1);
    EXPECT_TRUE(journal.saw({admit + "listen transport busy, session id: 8",
                             admit + "listen transport busy, session id: 7"},
                            4s))
        << "at once";
    service.answer("proxyClientConnected", Answer::Held);
    const FileDescriptor client = connectTo(port);
    EXPECT_TRUE(eventually([&] { return service.count("proxyClientConnected *") > 0; }));
    EXPECT_FALSE(connectTo(port, 0ms)) << "a second client, while the first one is on its way";
    service.answer("proxyClientConnected", Answer::Reply);
    EXPECT_TRUE(echoes(client));
    EXPECT_TRUE(echoes(open(8)));
    EXPECT_EQ(service.count("proxyListenStarted *"), 2u);
}

TEST_F(Admission, TheListenerGoesWithItsSession) {
    start(R"("listen:addr": "127.0.0.1", "listen:timeout": 10)");
    for (const auto& [seconds, effective] : {std::pair(5, 10), {30, 30}, {9, 10}}) {
        service->signalProxyListenTimeout(static_cast<uint32_t>(seconds));
        allow();
        EXPECT_TRUE(boundSocket("127.0.0.9", port)) << "it listens on one address";
        service->signalSessionDisconnected(7, 99, "x");
        EXPECT_TRUE(journal.saw({
            "signalProxyListenTimeout: set timeout: " + std::to_string(seconds),
            admit + "session id: 7, timeout: " + std::to_string(effective),
            task + "address: 127.0.0.1, port: *",
            "signalSessionDisconnected: session id: 7, pid: 99, remote addr: `x'",
            task + "exception: session disconnected, session id: 7",
        }));
        EXPECT_TRUE(isClosed());
        journal.forget();
    }
}

TEST_F(Admission, TheListenerGoesAfterTheLongerOfBothTimes) {
    for (const auto& [configured, told] : {std::pair(1, 3), {2, 1}}) {
        start(R"("listen:timeout": )" + std::to_string(configured));
        service->signalProxyListenTimeout(static_cast<uint32_t>(told));
        EXPECT_TRUE(journal.saw({"*: set timeout: 0", "*: set timeout: " + std::to_string(told)}));
        const auto begin = std::chrono::steady_clock::now();
        allow();
        service->signalSessionDisconnected(8, 0, ""); // not the one that it listens for
        EXPECT_TRUE(
            journal.saw({task + "exception: transport stopped, timeout, session id: 7"}, 8s));
        EXPECT_GE(std::chrono::steady_clock::now() - begin,
                  std::chrono::seconds(std::max(configured, told)));
        EXPECT_TRUE(isClosed());
        stop();
    }
    EXPECT_EQ(service.count("proxyClientConnected *"), 0u);
}

TEST_F(Admission, AValueOfTheWrongTypeIsNoDefault) {
    start(R"("listen:timeout": "long")");
    service->signalProxyAllowConnection(7, 3);
    EXPECT_TRUE(journal.saw({admit + "exception: key `listen:timeout': *, session id: 7"}));
    stop();
    start(R"("listen:addr": [])");
    service->signalProxyAllowConnection(7, 3);
    EXPECT_TRUE(journal.saw({task + "exception: key `listen:addr': *, session id: 7"}));
    stop();
    start(R"("listen:port": null)");
    allow();
    EXPECT_TRUE(connectTo(3389)) << "when none is configured";
}

TEST_F(Admission, KeepaliveIsAnOptionAndRefusedValuesAreOnlyWarnedOf) {
    start(R"("tcp:keepalive:delay": 0, "tcp:keepalive:interval": 40000)");
    EXPECT_TRUE(echoes(open()));
    const std::string refused = " failed, error: Invalid argument, code: -1";
    EXPECT_TRUE(journal.saw(
        {task + "socket set policy: SO_KEEPALIVE = 1", task + "socket SO_KEEPIDLE" + refused,
         task + "socket set policy: SO_KEEPCNT = 3", task + "socket SO_KEEPINTVL" + refused}));
    stop();
    start(R"("tcp:keepalive:enable": false)");
    const FileDescriptor client = open();
    EXPECT_EQ(clientOption(SOL_SOCKET, SO_KEEPALIVE), 0);
    EXPECT_EQ(clientOption(IPPROTO_TCP, TCP_NODELAY), 1);
    EXPECT_EQ(journal.count("*: socket *"), 0u);
}

TEST_F(Admission, SignalsThatItHasNoUseForDoNothing) {
    start();
    journal.forget();
    service->signalSessionCreated(7);
    service->signalSessionConnected(7, 8, "text");
    service->signalSessionShutdown(7);
    service->signalTransportDisplaySwitchTo(-1, 2, "text");
    service->signalVorlStopped();
    EXPECT_EQ(daemon.process->wait(), 0);
    EXPECT_TRUE(journal.saw({"signalVorlStopped, pid: " + std::to_string(daemon.process->pid())}));
    EXPECT_EQ(journal.records().size(), 1u);
}

} // namespace VorlTest

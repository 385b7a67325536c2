#include "fixtures/stage.h"

#include <sys/resource.h>

namespace VorlTest {

using Admission = Stage;

namespace {

const std::string disconnected = "actionCreateTransport: exception: session disconnected, *: ";
const std::string timedOut = "actionCreateTransport: exception: transport stopped, timeout, *: ";

} // namespace

TEST_F(Admission, TakesOneAllowanceAtATime) {
    start();
    allow(7);
    service->signalProxyAllowConnection(8, 1);
    service->signalProxyAllowConnection(7, 1);
    EXPECT_TRUE(journal.saw({"signalProxyAllowConnection: listen transport busy, session id: 8",
                             "signalProxyAllowConnection: listen transport busy, session id: 7"}));
    service->signalSessionDisconnected(8, 0, ""); // not the one that it listens for
    Fd client = connectTo(port);
    EXPECT_TRUE(service.called("proxySessionConnected 7 *"));
    EXPECT_TRUE(echoes(client));
    EXPECT_EQ(service.count("proxyListenStarted *"), 1u);
    EXPECT_TRUE(echoes(open(8)));
}

TEST_F(Admission, TheListenerGoesWithItsSessionOrItsTime) {
    start(R"("listen:addr": "127.0.0.1", "listen:timeout": 1)");
    allow(7);
    service->signalSessionDisconnected(7, 99, "x");
    EXPECT_TRUE(journal.saw({"signalSessionDisconnected: session id: 7, *", disconnected + "7"}));
    EXPECT_EQ(connectTo(port, 0ms), -1);
    allow(8);
    EXPECT_TRUE(journal.saw({timedOut + "8"}));
    EXPECT_EQ(connectTo(port, 0ms), -1);
    EXPECT_EQ(service.calls(), (std::vector<std::string>{"vorlTest", "proxyListenStarted 7 true",
                                                         "proxyListenStarted 8 true"}));
    EXPECT_EQ(journal.count("actionCreateTransport: address: 127.0.0.1, *"), 2u);
}

TEST_F(Admission, TheLongerTimeoutHolds) {
    start(R"("listen:timeout": 10)");
    const std::vector<std::pair<uint32_t, std::string>> cases = {{5, "10"}, {30, "30"}, {9, "10"}};
    for (const auto& [seconds, effective] : cases) {
        journal.forget();
        service->signalProxyListenTimeout(seconds);
        allow();
        service->signalSessionDisconnected(7, 0, "");
        EXPECT_TRUE(journal.saw({
            "signalProxyListenTimeout: set timeout: " + std::to_string(seconds),
            "signalProxyAllowConnection: session id: 7, timeout: " + effective,
            disconnected + "7",
        }));
    }
}

TEST_F(Admission, APortInUseCostsADescriptorAndNoMore) {
    start();
    const size_t before = daemon.descriptors();
    {
        const Fd other = boundSocket("127.0.0.1", port);
        listen(other, 1);
        for (int attempt = 0; attempt < 3; ++attempt)
            allow();
        EXPECT_EQ(service.count("proxyListenStarted 7 false"), 3u);
        EXPECT_TRUE(
            journal.saw({"tcpListen: bind failed, error: Address already in use, code: 98"}));
    }
    EXPECT_TRUE(eventually([&] { return daemon.descriptors() == before + 3; }));
    EXPECT_TRUE(echoes(open()));
    EXPECT_EQ(service.count("proxyClientConnected *"), 1u);
}

TEST_F(Admission, AFailedAcceptClosesTheListener) {
    start();
    allow();
    rlimit none{daemon.descriptors(), 4096};
    prlimit(daemon.process->pid(), RLIMIT_NOFILE, &none, nullptr);
    const Fd client = connectTo(port);
    EXPECT_TRUE(ends(client));
    EXPECT_TRUE(journal.saw({"tcpAccept: accept failed, error: Too many open files, code: 24"}));
    none.rlim_cur = none.rlim_max;
    prlimit(daemon.process->pid(), RLIMIT_NOFILE, &none, nullptr);
    EXPECT_TRUE(echoes(open()));
    EXPECT_EQ(service.count("proxyClientConnected *"), 1u);
}

TEST_F(Admission, RefusedKeepaliveOptionsAreOnlyWarnedOf) {
    start(R"("tcp:keepalive:delay": 0, "tcp:keepalive:interval": 40000)");
    const Fd client = open();
    EXPECT_TRUE(echoes(client));
    const std::string refused = " failed, error: Invalid argument, code: -1";
    EXPECT_TRUE(journal.saw({
        "actionCreateTransport: socket set policy: SO_KEEPALIVE = 1",
        "actionCreateTransport: socket SO_KEEPIDLE" + refused,
        "actionCreateTransport: socket set policy: SO_KEEPCNT = 3",
        "actionCreateTransport: socket SO_KEEPINTVL" + refused,
    }));
}

TEST_F(Admission, SignalsThatItHasNoUseForOrThatAreMalformedDoNothing) {
    start();
    const std::string before = daemon.holdings();
    journal.forget();
    service->signalSessionCreated(7);
    service->signalSessionConnected(7, 8, "text");
    service->signalSessionShutdown(7);
    service->signalTransportDisplaySwitchTo(-1, 2, "text");
    for (const char* member : {"signalProxyAllowConnection", "signalSessionDisconnected",
                               "signalProxyListenTimeout", "signalUnknown"})
        service.sendText(member, "not a number");
    EXPECT_TRUE(journal.saw({"SignalFilter: signal ignored, wrong arguments: *Timeout, *"}));
    EXPECT_EQ(daemon.holdings(), before);
    service.sendText("signalVorlStopped", "more than it needs");
    EXPECT_EQ(daemon.process->wait(), 0);
    EXPECT_TRUE(journal.saw({"signalVorlStopped, pid: " + std::to_string(daemon.process->pid())}));
    EXPECT_EQ(journal.count("SignalFilter: signal ignored, wrong arguments: *"), 3u);
    EXPECT_EQ(journal.records().size(), 4u);
}

} // namespace VorlTest

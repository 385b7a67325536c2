#include "fixtures/daemon_test.h"

namespace VorlTest {

class ServiceFault : public DaemonTest {
protected:
    // Brings the daemon to a call of that method, which is not answered.
    FileDescriptor reach(const std::string& method, Answer how) {
        service.answer(method, how);
        const size_t before = service.count(method + " *");
        service->signalProxyAllowConnection(7, 3);
        FileDescriptor client;
        if (method != "proxyListenStarted")
            client = connectTo(port);
        EXPECT_TRUE(eventually([&] { return service.count(method + " *") > before; })) << method;
        return client;
    }

    // The bus dies, while a relay runs and perhaps during a call.
    void expectEndWithBus(const std::string& method = "") {
        start();
        const FileDescriptor client = open(8);
        const pid_t shadowServer = static_cast<pid_t>(shadowPid());
        if (!method.empty())
            reach(method, Answer::Never);
        bus.daemon.signal(SIGKILL);
        ASSERT_EQ(daemon.process->wait(10s), 0);
        ASSERT_TRUE(journal.saw({"start: connection to the system bus lost, *"}));
        EXPECT_TRUE(ends(client));
        EXPECT_NE(kill(shadowServer, 0), 0);
    }
};

TEST_F(ServiceFault, SignalsAreHandledWhileACallWaits) {
    start();
    const FileDescriptor client = reach("vorlSessionInfoJson", Answer::Held);
    for (uint32_t seconds = 1; seconds <= 100; ++seconds) {
        service->signalProxyListenTimeout(seconds);
        ASSERT_TRUE(journal.saw({"*: set timeout: " + std::to_string(seconds)}, 2s));
    }
    for (uint32_t seconds = 200; seconds < 300; ++seconds) // around the answer
        service->signalProxyListenTimeout(seconds);
    service.answer("vorlSessionInfoJson", Answer::Reply);
    service->signalProxyListenTimeout(300);
    EXPECT_TRUE(journal.saw({"*: set timeout: 299", "*: set timeout: 300"}, 2s));
    EXPECT_EQ(journal.count("*: set timeout: [1-9]*"), 201u);
    EXPECT_TRUE(echoes(client));
}

TEST_F(ServiceFault, TheDaemonStaysOnTheBusUntilItsShadowServersHaveEnded) {
    start(stub("slow"));
    const FileDescriptor client = open();
    const pid_t shadowServer = static_cast<pid_t>(shadowPid());
    DBusConnection* const observer = dbus_connection_open_private(bus.address.c_str(), nullptr);
    dbus_bus_register(observer, nullptr);
    const auto isOnTheBus = [=] { // after the session service
        return dbus_bus_name_has_owner(observer, ":1.1", nullptr) == TRUE;
    };
    ASSERT_TRUE(isOnTheBus());
    allow(8); // its task ends only some time after the stop
    daemon.process->signal(SIGTERM);
    EXPECT_TRUE(eventually([&] { return !isOnTheBus(); }));
    EXPECT_NE(kill(shadowServer, 0), 0);
    dbus_connection_close(observer);
    dbus_connection_unref(observer);
}

TEST_F(ServiceFault, NoSilentBusHoldsUpTheStop) {
    start();
    const FileDescriptor client = open();
    bus.daemon.signal(SIGSTOP);
    daemon.process->signal(SIGTERM);
    EXPECT_EQ(daemon.process->wait(10s), 0);
    for (const int number : {SIGTERM, SIGINT}) {
        daemon.start(); // which waits for the bus without limit
        EXPECT_FALSE(daemon.process->wait(500ms));
        daemon.process->signal(number);
        EXPECT_EQ(daemon.process->wait(6s), 0);
    }
    bus.daemon.signal(SIGCONT);
}

TEST_F(ServiceFault, ADisconnectDuringTheLastCallIsNotLostAndHoldsNothingUp) {
    start();
    const FileDescriptor other = open(8, 8);
    const uint32_t otherShadow = shadowPid();
    const FileDescriptor client = reach("proxySessionConnected", Answer::Held);
    service->signalSessionDisconnected(8, otherShadow, "");
    service->signalSessionDisconnected(7, shadowPid(), "");
    service->signalProxyListenTimeout(5);
    EXPECT_TRUE(journal.saw({"signalProxyListenTimeout: set timeout: 5"}, 5s));
    EXPECT_EQ(journal.count("JobTransferStopped: *"), 0u) << "not while the call is made";
    service.answer("proxySessionConnected", Answer::Reply);
    EXPECT_TRUE(ends(client) && ends(other));
}

TEST_F(ServiceFault, TheServiceMayGoAndComeBack) {
    start(R"("listen:timeout": 1)");
    const FileDescriptor client = open(7);
    service.leave();
    service.comeBack();
    EXPECT_TRUE(echoes(client));
    const std::string before = daemon.resources();
    reach("proxyListenStarted", Answer::Held);
    service.leave();
    service.comeBack();
    service.answer("proxyListenStarted", Answer::Reply);
    EXPECT_TRUE(echoes(open(8, 8)));
    EXPECT_TRUE(holds(before));
}

TEST_F(ServiceFault, SignalsThatDoNotFitAreIgnored) {
    start();
    const std::string before = daemon.resources();
    for (int i = 0; i < 2'000; ++i)
        service.send(i % 2 ? "signalProxyAllowConnection" : "signalNobodyKnows", 0, "text");
    service->signalProxyListenTimeout(3);
    EXPECT_TRUE(journal.saw({"SignalFilter: signal ignored, wrong arguments: "
                             "signalProxyAllowConnection, sender: :*",
                             "*: set timeout: 3"}));
    EXPECT_EQ(journal.count("SignalFilter: *"), 1'000u);
    service.send("signalSessionDisconnected", 3); // its last argument is a text
    EXPECT_TRUE(journal.saw({"SignalFilter: *: signalSessionDisconnected, *"}));
    EXPECT_TRUE(holds(before));
    EXPECT_TRUE(echoes(open()));
    service.send("signalVorlStopped", 0, "more than it needs");
    EXPECT_EQ(daemon.process->wait(), 0);
}

TEST_F(ServiceFault, TheEndOfTheBusEndsTheDaemonInOrder) {
    expectEndWithBus();
}

TEST_F(ServiceFault, TheEndOfTheBusDuringACallEndsTheDaemonInOrder) {
    expectEndWithBus("proxyListenStarted");
}

} // namespace VorlTest

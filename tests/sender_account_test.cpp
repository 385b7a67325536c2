#include "fixtures/daemon_test.h"
#include "fixtures/silent_bus.h"

#include <sys/syscall.h>

namespace VorlTest {

namespace {

// A connection to the bus from that account.
class Sender {
public:
    Sender(const std::string& address, uid_t uid) {
        std::thread([&] { // the kernel keeps accounts by thread, unlike setresuid(2) of the library
            syscall(SYS_setresuid, uid, uid, uid);
            bus = dbus_connection_open_private(address.c_str(), nullptr);
            dbus_bus_register(bus, nullptr);
        })
            .join();
    }
    Sender(const Sender&) = delete;
    ~Sender() {
        dbus_connection_close(bus);
        dbus_connection_unref(bus);
    }

    void own(const char* name) { dbus_bus_request_name(bus, name, 0, nullptr); }

    // Types are D-Bus type codes; each number is the argument's, each text is empty.
    void signal(const char* member, const std::string& types, uint32_t number = 0,
                const char* destination = nullptr) {
        DBusMessage* const message =
            dbus_message_new_signal("/net/qarel/vorl", "net.qarel.vorl", member);
        dbus_message_set_destination(message, destination);
        const char* text = "";
        for (const char type : types)
            type == 's' ? dbus_message_append_args(message, type, &text, DBUS_TYPE_INVALID)
                        : dbus_message_append_args(message, type, &number, DBUS_TYPE_INVALID);
        dbus_connection_send(bus, message, nullptr);
        dbus_connection_flush(bus);
        dbus_message_unref(message);
    }

private:
    DBusConnection* bus = nullptr;
};

} // namespace

// On a bus without any policy, with a daemon, a service and a stranger that are not root.
class SenderAccount : public DaemonTest {
protected:
    // Any, but in the system's database: others the bus refuses.
    static constexpr uid_t daemonUid = 1, serviceUid = 2, strangerUid = 65534;

    void SetUp() override {
        if (!hasAllAccounts())
            GTEST_SKIP() << "needs root";
        DaemonTest::SetUp();
        daemon.arguments.insert(daemon.arguments.begin(), {"--reuid=" + std::to_string(daemonUid),
                                                           "--clear-groups", "--", daemon.program});
        daemon.program = "/usr/bin/setpriv";
        ASSERT_EQ(chown(daemon.home.c_str(), daemonUid, 0), 0);
        start();
    }

    testing::AssertionResult hears(Sender& sender) {
        sender.signal("signalProxyListenTimeout", "u", ++last);
        return journal.saw({"*: set timeout: " + std::to_string(last)});
    }

    testing::AssertionResult ignores(Sender& sender, uid_t uid) {
        journal.forget();
        sender.signal("signalProxyListenTimeout", "u", ++last);
        return journal.saw({"SignalFilter: signal ignored, account not allowed: "
                            "signalProxyListenTimeout, sender: :*, uid: " +
                            std::to_string(uid)});
    }

    uint32_t last = 0;
};

TEST_F(SenderAccount, StrangersAreNotHeard) {
    Sender stranger(bus.address, strangerUid);
    const std::map<const char*, const char*> members = {{"signalSessionShutdown", "u"},
                                                        {"signalSessionCreated", "u"},
                                                        {"signalSessionConnected", "uus"},
                                                        {"signalSessionDisconnected", "uus"},
                                                        {"signalProxyAllowConnection", "uu"},
                                                        {"signalProxyListenTimeout", "u"},
                                                        {"signalVorlStopped", ""},
                                                        {"signalTransportDisplaySwitchTo", "iis"}};
    for (const auto& [member, types] : members) {
        stranger.signal(member, types);
        stranger.signal(member, types, 0, ":1.1"); // which no match rule filters
    }
    EXPECT_TRUE(eventually([&] {
        return journal.count("*account not allowed*uid: " + std::to_string(strangerUid)) == 16;
    }));
    service->signalProxyListenTimeout(1);
    EXPECT_TRUE(journal.saw({"*: set timeout: 1"}));
    EXPECT_EQ(journal.count("signal*"), 2u) << "with that of the start";
    EXPECT_TRUE(service.calls() == std::vector<std::string>{"vorlTest"});
}

TEST_F(SenderAccount, ThoseInChargeAreHeardFromAnyConnection) {
    Sender root(bus.address, 0), own(bus.address, daemonUid), second(bus.address, serviceUid),
        stranger(bus.address, strangerUid);
    EXPECT_TRUE(hears(root) && hears(own) && ignores(second, serviceUid));
    service.leave(); // and comes back under another account
    {
        Sender first(bus.address, serviceUid);
        first.own("net.qarel.vorl");
        EXPECT_TRUE(hears(first) && hears(second) && ignores(stranger, strangerUid));
    }
    stranger.own("net.qarel.vorl");
    EXPECT_TRUE(hears(stranger) && ignores(second, serviceUid) && hears(root));
}

TEST_F(SenderAccount, IsLookedUpWhileACallWaits) {
    service.answer("proxyListenStarted", Answer::Held);
    service->signalProxyAllowConnection(7, 3);
    ASSERT_TRUE(eventually([&] { return service.count("proxyListenStarted *") > 0; }));
    Sender root(bus.address, 0);
    EXPECT_TRUE(hears(root));
    service.answer("proxyListenStarted", Answer::Reply);
}

// On a bus that tells no account before it is told to.
class SenderAccountLookUp : public testing::Test {
protected:
    void SetUp() override {
        std::ofstream(daemon.configuration) << "{}";
        daemon.start();
        ASSERT_TRUE(journal.saw({"start: started, *"}));
    }

    void signal(const char* sender, uint32_t number) {
        bus.signal(sender, "signalProxyListenTimeout", number);
    }

    testing::AssertionResult heard(uint32_t number) {
        return journal.saw({"*: set timeout: " + std::to_string(number)});
    }

    testing::AssertionResult refused(const std::string& senderAndAccount) {
        return journal.saw({"*account not allowed: *, sender: " + senderAndAccount});
    }

    void expectEndAfterLossOf(size_t connection) {
        bus.drop(connection);
        ASSERT_EQ(daemon.process->wait(), 0);
        EXPECT_TRUE(journal.saw({"start: connection to the system bus lost, *"}));
    }

    Journal journal;
    SilentBus bus;
    Daemon daemon{bus.address};
};

TEST_F(SenderAccountLookUp, HoldsUpNeitherKnownSendersNorTheStop) {
    signal(":1.5", 1);
    signal(":1.6", 2);
    signal(":1.5", 3);
    bus.signal(":1.5", "signalProxyListenTimeout", 8, "/another/object");
    bus.tell(":1.6", 0);
    signal(":1.6", 4);
    EXPECT_TRUE(heard(2) && heard(4));
    EXPECT_EQ(journal.count("*: set timeout: *"), 2u) << "only of the known sender";
    bus.tell(":1.5", 0);
    EXPECT_TRUE(journal.saw({"*: set timeout: 1", "*: set timeout: 3"}));

    signal(":1.7", 5);
    bus.tell(":1.7", 65534);
    bus.tell("net.qarel.vorl", {});
    EXPECT_TRUE(refused(":1.7, uid: 65534"));
    for (uint32_t i = 0; i <= 1000; ++i) // as many as are held, and one
        signal(":1.8", 6);
    EXPECT_TRUE(journal.saw({"*too many*, sender: :1.8"}));
    signal(":1.9", 7);
    bus.tell(":1.9", 0);
    EXPECT_TRUE(heard(7)) << "held beside those of another sender";
    daemon.process->signal(SIGTERM);
    EXPECT_EQ(daemon.process->wait(), 0);
    EXPECT_EQ(journal.count("*: set timeout: *"), 5u);
    EXPECT_EQ(journal.count("SignalFilter: *"), 2u);
}

TEST_F(SenderAccountLookUp, FollowsTheOwnersOfNamesThatTheBusTellsOf) {
    const char *theBus = DBUS_SERVICE_DBUS, *service = "net.qarel.vorl";
    bus.ownerChanged(":1.5", service, ":1.5"); // forged
    signal(":1.5", 1);
    bus.tell(":1.5", 65534);
    bus.tell(service, 65533);
    EXPECT_TRUE(refused(":1.5, uid: 65534"));
    bus.ownerChanged(theBus, ":1.6", ":1.6"); // both are asked for before they send
    bus.ownerChanged(theBus, service, ":1.7");
    bus.tell(":1.6", 65532);
    bus.tell(":1.7", 65532);
    signal(":1.6", 2);
    EXPECT_TRUE(heard(2));
    bus.ownerChanged(theBus, service, ":1.8");
    signal(":1.6", 3); // is held until the owner's account is known, or there is no owner
    bus.ownerChanged(theBus, service, "");
    EXPECT_TRUE(refused(":1.6, uid: 65532"));
    bus.ownerChanged(theBus, ":1.6", ""); // has left, and is asked for again
    signal(":1.6", 4);
    bus.tell(":1.6", 0);
    EXPECT_TRUE(heard(4));
    signal(":1.9", 5);
    bus.ownerChanged(theBus, ":1.9", ""); // leaves before its account is known
    bus.tell(":1.9", 0);
    EXPECT_TRUE(heard(5));
    signal(":1.9", 6);
    bus.tell(":1.9", 0);
    EXPECT_TRUE(heard(6));
}

TEST_F(SenderAccountLookUp, TheLossOfItsConnectionEndsTheDaemon) {
    expectEndAfterLossOf(1);
}

TEST_F(SenderAccountLookUp, TheLossOfTheSignalsConnectionEndsTheDaemon) {
    expectEndAfterLossOf(0);
}

} // namespace VorlTest

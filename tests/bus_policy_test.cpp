#include "fixtures/daemon.h"
#include "fixtures/journal.h"
#include "fixtures/private_bus.h"
#include "fixtures/session_service.h"

#include <regex>
#include <set>

namespace VorlTest {

// The policy that we install, on a bus with the defaults of a system bus.
class BusPolicy : public testing::Test {
protected:
    using Words = std::vector<std::string>;

    void SetUp() override {
        if (!hasAllAccounts())
            GTEST_SKIP() << "needs root";
        std::ofstream(daemon.configuration) << "{}";
        daemon.start();
        ASSERT_TRUE(journal.saw({"start: started, *"}));
        journal.forget();
    }

    // What another account's dbus-send prints when it fails; nothing when it does not.
    std::string send(const std::string& uid, const Words& words) {
        Words command{"/usr/bin/dbus-send", "--bus=" + bus.address};
        command.insert(command.end(), words.begin(), words.end());
        Process process(as(uid, command), {}, outsider);
        return process.wait() == 0 ? "" : readFile(outsider / "errors");
    }

    std::string call(const char* destination, const Words& member) {
        Words words{"--print-reply", std::string("--dest=") + destination, "/net/qarel/vorl"};
        words.insert(words.end(), member.begin(), member.end());
        return send("65534", words);
    }

    static Words as(const std::string& uid, Words command) {
        command.insert(command.begin(),
                       {"/usr/bin/setpriv", "--reuid=" + uid, "--clear-groups", "--"});
        return command;
    }

    // All signals of the interface from that account, to everybody and to the daemon. They have no
    // arguments, so that the daemon has a word to say about each that reaches it. The last in the
    // alphabet is the one that stops it, if its sender stays until its account is known.
    void forgeSignals(const std::string& uid) {
        for (const std::string& member : members("signal")) {
            const std::string name = "net.qarel.vorl." + member;
            send(uid, {"--type=signal", "/net/qarel/vorl", name});
            send(uid, {"--type=signal", "--dest=:1.1", "/net/qarel/vorl", name});
        }
    }

    static std::set<std::string> members(const std::string& kind) {
        const std::string document = readFile(BUS_INTERFACE);
        const std::regex member("<" + kind + " name=\"(\\w+)\"");
        const std::sregex_token_iterator first(document.begin(), document.end(), member, 1);
        return {first, {}};
    }

    const std::filesystem::path outsider = makeDirectory();
    Journal journal;
    PrivateBus bus{"<type>system</type><policy context='default'><allow user='*'/><deny own='*'/>"
                   "<allow send_type='signal'/><deny send_type='method_call'/>"
                   "<allow send_requested_reply='true' send_type='method_return'/>"
                   "<allow send_requested_reply='true' send_type='error'/>"
                   "<allow send_destination='org.freedesktop.DBus'/>"
                   "<allow receive_type='signal'/><allow receive_type='method_call'/>"
                   "<allow receive_type='method_return'/><allow receive_type='error'/>"
                   "</policy><include>" BUS_POLICY "</include>"};
    SessionService service{bus.address}; // :1.0
    Daemon daemon{bus.address};          // :1.1
};

TEST_F(BusPolicy, SignalsOfOtherAccountsDoNotReachTheDaemon) {
    ASSERT_EQ(members("signal").size(), 8U);
    forgeSignals("65534");
    service->signalProxyListenTimeout(5);
    EXPECT_TRUE(journal.saw({"signalProxyListenTimeout: set timeout: 5"}));
    EXPECT_EQ(journal.records().size(), 1U);

    forgeSignals("0"); // reach it, so what did not would have been seen
    service->signalVorlStopped();
    EXPECT_EQ(daemon.process->wait(), 0);
    EXPECT_EQ(journal.count("SignalFilter: signal ignored, wrong arguments: *"), 2U * 7);
}

TEST_F(BusPolicy, OtherAccountsMayNotCallOwnOrListen) {
    for (const std::string& method : members("method")) {
        for (const char* destination : {"net.qarel.vorl", ":1.0"})
            EXPECT_NE(call(destination, {"net.qarel.vorl." + method}).find("AccessDenied"),
                      std::string::npos);
    }
    EXPECT_EQ(service.calls(), Words{"vorlTest"}); // the daemon's own
    EXPECT_NE(call("org.freedesktop.DBus",
                   {"org.freedesktop.DBus.RequestName", "string:net.qarel.vorl", "uint32:3"})
                  .find("not allowed to own"),
              std::string::npos);

    const std::filesystem::path directory = makeDirectory();
    const Process monitor(as("65534", {"/usr/bin/dbus-monitor", "--address", bus.address,
                                       "type='signal',path='/net/qarel/vorl'"}),
                          {}, directory);
    const auto heard = [&](const char* member) {
        return readFile(directory / "output").find(member) != std::string::npos;
    };
    const auto mark = [&](const char* member) {
        send("65534", {"--type=signal", "/net/qarel/vorl", std::string("net.other.") + member});
        return heard(member);
    };
    EXPECT_TRUE(eventually([&] { return mark("Listening"); }));
    service->signalProxyListenTimeout(5);
    EXPECT_TRUE(journal.saw({"signalProxyListenTimeout: set timeout: 5"}));
    EXPECT_TRUE(eventually([&] { return mark("Done"); }));
    EXPECT_FALSE(heard("signalProxyListenTimeout"));
}

} // namespace VorlTest

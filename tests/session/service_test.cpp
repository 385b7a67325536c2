#include "fixtures/client.h"
#include "fixtures/daemon.h"
#include "fixtures/journal.h"
#include "fixtures/private_bus.h"
#include "fixtures/service_manager.h"
#include "fixtures/x_server.h"

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

namespace VorlTest {

// The real vorl_session beside the real vorl_proxy, on a private bus, with an X server that draws
// nothing, a shadow server that echoes, and sessions in the files that logind keeps them in.
class SessionServiceTest : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories(sessions);
        writeCookie(home / "authority", "0123456789abcdef");
        writeCookie(home / "another", "fedcba9876543210");
        server.start({"-auth", home / "authority"});
        std::ofstream(daemon.configuration)
            << R"({"listen:addr": "127.0.0.1", "listen:port": )" << port
            << R"(, "x11rdp:path": ")" SHADOW_STUB
               R"(", "x11rdp:args": ["/ipc-socket:%{socket}"]})";
        configure("");
    }
    void TearDown() override { std::filesystem::remove_all("/run/systemd/sessions"); }

    void configure(const std::string& more) {
        std::ofstream(home / "new")
            << R"({"proxy:config": ")" << daemon.configuration.string()
            << R"(", "password:file": ")" << (home / "passwd").string() << '"' << more << "}";
        std::filesystem::rename(home / "new", home / "session.json");
    }

    static void logIn(const std::string& id, const std::string& facts = "TYPE=x11\nCLASS=user") {
        std::ofstream("/run/systemd/new") << "UID=0\nUSER=root\nACTIVE=1\nSTATE=active\n"
                                          << "DISPLAY=:5\n"
                                          << facts << "\n";
        std::filesystem::rename("/run/systemd/new", sessions / id);
    }

    std::unique_ptr<Process> run(const std::string& directory) {
        std::filesystem::create_directory(home / directory);
        return std::make_unique<Process>(
            std::vector<std::string>{VORL_SESSION, "--config", home / "session.json"},
            environment(), home / directory);
    }

    // What a line of a shell prints.
    std::string printed(const std::string& line) {
        Process process({"/bin/sh", "-c", line}, environment(), home);
        process.wait();
        return readFile(home / "output") + readFile(home / "errors");
    }

    std::string output(const std::string& words) { return printed(program + words); }

    testing::AssertionResult says(const std::string& pattern) {
        std::string text;
        if (eventually([&] {
                text = output("status");
                return fnmatch(pattern.c_str(), text.c_str(), 0) == 0;
            }))
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << text;
    }

    // What the command prints when it gets that input.
    std::string setPassword(const std::string& input = "secret", const std::string& user = "root") {
        return printed("printf '" + input + "' | " + program + "password " + user);
    }

    // What an account gets that calls a method of the service.
    std::string call(const std::string& method, const std::string& uid = "0") {
        return printed("setpriv --reuid=" + uid + " dbus-send --print-reply --bus=" + bus.address +
                       " --dest=net.qarel.vorl /net/qarel/vorl net.qarel.vorl." + method);
    }

    // Tells of the screen of session 3 what logind does.
    void setLocked(bool locked) {
        sd_bus* logind = nullptr;
        sd_bus_new(&logind);
        sd_bus_set_address(logind, bus.address.c_str());
        sd_bus_set_bus_client(logind, 1);
        sd_bus_start(logind);
        EXPECT_GE(sd_bus_request_name(logind, "org.freedesktop.login1", 0), 0);
        sd_bus_emit_signal(logind, "/org/freedesktop/login1/session/_33",
                           "org.freedesktop.DBus.Properties", "PropertiesChanged", "sa{sv}as",
                           "org.freedesktop.login1.Session", 2, "IdleHint", "b", 1, "LockedHint",
                           "b", locked, 0);
        sd_bus_flush_close_unref(logind);
    }

    void start() {
        service = run("service");
        ASSERT_TRUE(eventually([this] { return output("status").find("not run") == ~0UL; }))
            << readFile(home / "service/errors");
        daemon.start();
    }

    Vorl::FileDescriptor connectAndSee() {
        Vorl::FileDescriptor client = connectTo(port);
        EXPECT_TRUE(echoes(client, std::string(12'000, 'x')));
        return client;
    }

    std::vector<std::string> environment() const {
        return {"DBUS_SYSTEM_BUS_ADDRESS=" + bus.address, "RUNTIME_DIRECTORY=" + home.string(),
                manager ? manager->variable() : ""};
    }

    static inline const std::filesystem::path sessions = "/run/systemd/sessions";
    const std::filesystem::path home = makeDirectory();
    const std::string program =
        "'" VORL_SESSION "' --config " + (home / "session.json").string() + " ";
    const uint16_t port = freePort();
    const std::string where = "127.0.0.1:" + std::to_string(port);
    Journal journal;
    PrivateBus bus;
    XServer server{5};
    std::optional<ServiceManager> manager; // its test reads it: else it would block the service
    Daemon daemon{bus.address};
    std::unique_ptr<Process> service;
};

TEST_F(SessionServiceTest, TheRoadFromAPasswordToThePictureAndToTheEndOfTheSession) {
    manager.emplace();
    configure(R"(, "connection:endonlock": true)");
    logIn("1", "TYPE=tty\nCLASS=user");
    start();
    EXPECT_TRUE(says("no session can be reached\n  nobody is logged in *Nobody is connected.\n"));
    logIn("3");
    EXPECT_TRUE(says("*root has no password for remote log-in: vorl_session password root\n*"));
    EXPECT_NE(setPassword("").find("no password was given"), std::string::npos);
    EXPECT_NE(setPassword("secret", "nobody-known").find("there is no account"), std::string::npos);
    EXPECT_EQ(setPassword(), "");
    call("proxySessionConnected uint32:1 uint32:4194305 string:192.0.2.1"); // has gone already
    EXPECT_TRUE(says("root's session 3 can be reached at " + where + "\nNobody is connected.\n"));
    EXPECT_EQ(manager->next(), "READY=1");

    server.start({"-auth", home / "another"}); // since the service looked
    Vorl::FileDescriptor client = connectAndSee();
    EXPECT_TRUE(journal.saw({"signalProxyAllowConnection: session id: *, timeout: 86400",
                             "127.0.0.5 sees root's session 3"},
                            2s));
    EXPECT_TRUE(says("*Connected:\n  127.0.0.5:* at root's session 3 since *, sees the picture\n"));
    const std::string sam = readFile(daemon.workDirectory / "rdp_transport_0_0.log");
    EXPECT_NE(sam.find("+sec-nla, /sam-file:"), std::string::npos) << sam;
    EXPECT_NE(sam.find("-sec-tls, +auth"), std::string::npos) << sam;
    EXPECT_NE(sam.find("XAUTHORITY=" + (home / "authority-5").string()), std::string::npos) << sam;
    EXPECT_NE(readFile(home / "authority-5").find("fedcba9876543210"), std::string::npos);

    std::array<Vorl::FileDescriptor, 3> silent; // they take nobody's place
    for (Vorl::FileDescriptor& stranger : silent) {
        stranger = connectTo(port);
        EXPECT_TRUE(says("*, sees the picture\n*:" + std::to_string(portOf(stranger)) +
                         " at *, does not see the picture\n"));
    }
    setLocked(false);
    const Vorl::FileDescriptor second = connectAndSee(); // takes its place
    EXPECT_TRUE(ends(client) || echoes(client));
    EXPECT_TRUE(journal.saw({"127.0.0.5 no longer sees root's session 3 after * s: another client "
                             "has taken its place"}));
    EXPECT_EQ(output("password --remove root"), "");
    EXPECT_TRUE(says("*root has no password*127.0.0.5*127.0.0.5*"));
    const std::string status = "STATUS=no session can be reached; connections: 4";
    EXPECT_TRUE(eventually([&] { return manager->next(MSG_DONTWAIT) == status; }));
    std::filesystem::remove(sessions / "3");
    EXPECT_TRUE(journal.saw({"*taken its place", "vorl_session: nobody is *"}, 2s)); // at once
    for (const char* message : {"127.0.0.5 no longer sees *: the session has ended",
                                "127.0.0.5 never saw root's session 3, gone after * s: the *"})
        EXPECT_TRUE(journal.saw({"*: another client has taken its place", message}));
    EXPECT_TRUE(eventually([&] { return !connectTo(port, 0ms); })) << "the port is open";
}

TEST_F(SessionServiceTest, WhatIsWrongClosesThePortUntilItIsMended) {
    logIn("3");
    setPassword();
    configure(R"(, "connection:polcy": "multiallow")");
    start();
    const auto mended = [&] { return says("root's session 3 can be reached at " + where + "\n*"); };
    const auto isClosed = [&](const std::string& why) {
        const auto result = says("no session can be reached\n*" + why + "*");
        EXPECT_TRUE(eventually([&] { return !connectTo(port, 0ms); })) << "the port is open";
        return result;
    };
    EXPECT_TRUE(isClosed("unknown key \"connection:polcy\""));
    EXPECT_TRUE(journal.saw({"start: started, *"}));
    Vorl::FileDescriptor foreign = boundSocket("127.0.0.1", port);
    listen(foreign.get(), 1);
    configure("");
    EXPECT_TRUE(says("*vorl_proxy cannot open " + where + ": is the port in use? (ss -ltnp)\n*"));
    EXPECT_EQ(journal.count("*previous instance*"), 0U);
    foreign.reset();
    daemon.process->signal(SIGKILL);
    EXPECT_TRUE(says("*vorl_proxy does not answer: systemctl start vorl_proxy\n*"));
    daemon.start();
    EXPECT_TRUE(mended());
    std::filesystem::permissions(home / "passwd", std::filesystem::perms(0644));
    EXPECT_TRUE(journal.saw({"vorl_session: *chmod 600*"})); // nobody has asked for the status
    EXPECT_TRUE(isClosed("chmod 600"));
    std::filesystem::permissions(home / "passwd", std::filesystem::perms(0600));
    EXPECT_TRUE(mended());
    server.stop();
    EXPECT_TRUE(isClosed("there is no X server on display :5 of root's session 3"));
    server.start({"-auth", home / "authority"});
    EXPECT_TRUE(mended());
    logIn("3", "TYPE=wayland\nCLASS=user");
    EXPECT_TRUE(isClosed("choose an X11 session"));
    logIn("3", "TYPE=x11\nCLASS=greeter");
    EXPECT_TRUE(isClosed("nobody is logged in"));
    logIn("3", "TYPE=x11\nCLASS=user\nSTATE=closing");
    EXPECT_TRUE(isClosed("nobody is logged in"));
    logIn("3");
    EXPECT_TRUE(mended());

    const auto rival = run("rival");
    EXPECT_EQ(rival->wait(), 1);
    EXPECT_NE(readFile(home / "rival/errors").find("another session service owns"),
              std::string::npos);
    service->signal(SIGTERM);
    EXPECT_EQ(service->wait(), 0);
    EXPECT_TRUE(says("vorl_session: vorl_session does not run: *"));
}

TEST_F(SessionServiceTest, AFrontIsToldWhomToExpectAndGetsATicket) {
    const std::filesystem::path hook = home / "hook", told = home / "told";
    std::ofstream(hook) << "#!/bin/sh\nexec >>" << told
                        << "\nmkdir busy || echo two at a time\n"
                           "echo \"$1 $VORL_USER $VORL_ADDRESS:$VORL_PORT $VORL_TICKET.\"\n"
                           "[ -e hang ] && rm hang && trap '' TERM && exec sleep 60\n"
                           "rmdir busy\n[ \"$1\" != taken ]\n";
    std::filesystem::permissions(hook, std::filesystem::perms(0700));
    configure(
        R"(, "connection:policy": "authlock", "front:address": "rdp.example", "front:hook": ")" +
        hook.string() + '"');
    logIn("3");
    setPassword();
    start();
    const auto isTold = [&](const std::string& event) {
        return eventually([&] { return readFile(told).find(event) != std::string::npos; });
    };
    EXPECT_TRUE(isTold("open root " + where + " .\n"));
    EXPECT_TRUE(isTold("repeat root " + where + " .\n"));
    std::filesystem::permissions(hook, std::filesystem::perms(0600));
    output("ticket root");
    EXPECT_TRUE(journal.saw({"FrontHook: *hook cannot be run: Permission denied"}));
    std::filesystem::permissions(hook, std::filesystem::perms(0700));
    const std::string line = output("ticket root"), rdp = output("ticket --rdp root");
    const std::string start =
        "xfreerdp /v:rdp.example /u:root '/load-balance-info:Cookie: mstshash=";
    ASSERT_TRUE(line.starts_with(start)) << line;
    const std::string token = line.substr(start.size(), line.find_last_of('\'') - start.size());
    EXPECT_EQ(token.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_EQ(token.size(), 32U);
    EXPECT_NE(rdp.find("\r\nloadbalanceinfo:s:Cookie: mstshash="), std::string::npos) << rdp;
    EXPECT_EQ(rdp.find(token), std::string::npos);
    EXPECT_TRUE(isTold("ticket root " + where + " " + token + ".\n"));
    EXPECT_NE(output("ticket nobody").find("no password"), std::string::npos);
    for (const char* method : {"session.Status", "session.Ticket string:root"})
        EXPECT_TRUE(!hasAllAccounts() || call(method, "65534").find("AccessDenied") != ~0UL);
    EXPECT_NE(call("vorlSessionInfoJson uint32:1").find("has ended"), std::string::npos);
    EXPECT_EQ(call("proxyListenStarted uint32:1 boolean:true").find("int64"), ~0UL);
    const std::string interface =
        printed("dbus-send --print-reply --bus=" + bus.address +
                " --dest=net.qarel.vorl /net/qarel/vorl"
                " org.freedesktop.DBus.Introspectable.Introspect | tr -d ' \"\n'");
    for (const std::string signal :
         {"ProxyAllowConnection><argtype=u/><argtype=u/></", "ProxyListenTimeout><argtype=u/></",
          "SessionDisconnected><argtype=u/><argtype=u/><argtype=s/></"})
        EXPECT_NE(interface.find("<signalname=signal" + signal), ~0UL) << interface;
    EXPECT_NE(call("proxyClientConnected uint32:1 string:who").find("not admitted"), ~0UL);
    Vorl::FileDescriptor client = connectAndSee();
    EXPECT_TRUE(isTold("taken root " + where + " .\n"));
    EXPECT_TRUE(journal.saw({"FrontHook: * taken failed, status: 1"}));
    EXPECT_TRUE(isTold("ticket-end root " + where + " " + token + ".\n"));
    EXPECT_TRUE(says("*, but not by others while somebody is connected\n*"));
    EXPECT_EQ(readFile(told).find("two at a time"), std::string::npos);
    std::filesystem::remove(told);
    std::ofstream(home / "service/hang") << "";
    client.reset();
    EXPECT_TRUE(isTold("open root " + where + " .\n"));
    std::filesystem::remove(sessions / "3");
    EXPECT_TRUE(isTold("closed root " + where + " .\n")); // when the time for the one before is up
}

TEST_F(SessionServiceTest, AfterACrashOrAStopWhatItLetInIsEnded) {
    const Vorl::FileDescriptor another = boundSocket("127.0.0.9", port); // is not the daemon's
    listen(another.get(), 1);
    logIn("3");
    setPassword();
    start();
    const Vorl::FileDescriptor client = connectAndSee();
    EXPECT_TRUE(journal.saw({"127.0.0.5 sees root's session 3"})); // no call waits for its answer
    const int first = journal.number("requestRdpTransport: *");
    service->signal(SIGKILL);
    service->wait();
    EXPECT_TRUE(echoes(client));
    const auto start = std::chrono::steady_clock::now();
    service = run("service");
    EXPECT_TRUE(journal.saw({"vorl_session: vorl_proxy has a port or connections that a previous "
                             "instance of this service let in: *",
                             "signalVorlStopped, pid: *"}));
    // The daemon of a service that has been stopped needs some time to close its port.
    EXPECT_GE(std::chrono::steady_clock::now() - start, 500ms);
    EXPECT_EQ(daemon.process->wait(), 0);
    EXPECT_TRUE(ends(client));
    daemon.start(); // as systemd does
    const Vorl::FileDescriptor next = connectAndSee();
    EXPECT_TRUE(journal.saw({"127.0.0.5 sees *", "127.0.0.5 sees *"}));
    service->signal(SIGTERM); // nobody would watch over what it has let in
    EXPECT_EQ(service->wait(), 0);
    EXPECT_TRUE(ends(next));
    EXPECT_TRUE(eventually([&] { return !connectTo(port, 0ms); })) << "the port is open";
    service = run("service");
    const Vorl::FileDescriptor last = connectAndSee();
    EXPECT_TRUE(says("*, sees the picture\n"));
    EXPECT_EQ(journal.count("*previous instance*"), 1U);             // of the one that was killed
    EXPECT_GT(journal.number("requestRdpTransport: *") - first, 10); // beyond all used before
    bus.daemon.signal(SIGKILL);
    EXPECT_EQ(service->wait(), 1);
    service = run("service");
    EXPECT_EQ(service->wait(), 1);
    EXPECT_NE(readFile(home / "service/errors").find("the system bus cannot be reached: "), ~0UL);
}

TEST_F(SessionServiceTest, TheForegroundHasThePortAndALockEndsConnectionsWhereThatIsTold) {
    logIn("3");
    setPassword();
    start();
    const Vorl::FileDescriptor client = connectAndSee();
    logIn("4");
    EXPECT_TRUE(says("root's session 3 can be reached*\n  root's session 4 has to wait: *"));
    logIn("3", "TYPE=x11\nCLASS=user\nSTATE=online");
    EXPECT_TRUE(says("root's session 4 can be reached*\n  root's session 3 has to wait: *"));
    configure(R"(, "connection:endonlock": true)"); // takes effect for connections that there are
    EXPECT_TRUE(says("*root's session 3 since *, sees the picture\n"));
    EXPECT_TRUE(echoes(client));
    setLocked(true);
    EXPECT_TRUE(ends(client));
    EXPECT_TRUE(journal.saw({"127.0.0.5 no longer sees root's session 3 after * s: the screen *"}));
}

} // namespace VorlTest

#include "fixtures/client.h"
#include "fixtures/daemon.h"
#include "fixtures/journal.h"
#include "fixtures/private_bus.h"
#include "fixtures/service_manager.h"
#include "fixtures/x_server.h"

#include <gtest/gtest.h>

namespace VorlTest {

// The real vorl_session beside the real vorl_proxy, on a private bus, with an X server that draws
// nothing, a shadow server that echoes, and sessions in the files that logind keeps them in.
class SessionServiceTest : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories(sessions);
        writeCookie(home / "authority", "0123456789abcdef");
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

    std::unique_ptr<Process> run(const std::string& directory,
                                 const std::vector<std::string>& words) {
        std::vector<std::string> command{VORL_SESSION, "--config", home / "session.json"};
        command.insert(command.end(), words.begin(), words.end());
        std::filesystem::create_directory(home / directory);
        return std::make_unique<Process>(command, environment(), home / directory);
    }

    // What a command prints.
    std::string output(const std::vector<std::string>& words) {
        const auto process = run("command", words);
        process->wait();
        return readFile(home / "command/output") + readFile(home / "command/errors");
    }

    testing::AssertionResult says(const std::string& pattern) {
        std::string text;
        if (eventually([&] {
                text = output({"status"});
                return fnmatch(pattern.c_str(), text.c_str(), 0) == 0;
            }))
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << text;
    }

    // What the command prints when it gets that input.
    std::string setPassword(const std::string& input = "secret", const std::string& user = "root") {
        Process process({"/bin/sh", "-c",
                         "printf '" + input + "' | " VORL_SESSION " --config '" +
                             (home / "session.json").string() + "' password " + user},
                        environment(), home);
        process.wait();
        return readFile(home / "errors");
    }

    void start() {
        service = run("service", {});
        ASSERT_TRUE(eventually([this] { return output({"status"}).find("run") == ~0UL; }))
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
    start();
    EXPECT_TRUE(says("no session can be reached\n  nobody is logged in *Nobody is connected.\n"));
    logIn("3");
    EXPECT_TRUE(says("*root has no password for remote log-in: vorl_session password root\n*"));
    EXPECT_NE(setPassword("").find("no password was given"), std::string::npos);
    EXPECT_NE(setPassword("secret", "nobody-known").find("there is no account"), std::string::npos);
    EXPECT_EQ(setPassword(), "");
    EXPECT_TRUE(says("root's session 3 can be reached at " + where + "\nNobody is connected.\n"));
    EXPECT_EQ(manager->next(), "READY=1");

    Vorl::FileDescriptor client = connectAndSee();
    EXPECT_TRUE(journal.saw({"signalProxyAllowConnection: session id: *, timeout: 86400",
                             "127.0.0.5 sees root's session 3"}));
    EXPECT_TRUE(says("*Connected:\n  127.0.0.5:* at root's session 3 since *, sees the picture\n"));
    const std::string sam = readFile(daemon.workDirectory / "rdp_transport_0_0.log");
    EXPECT_NE(sam.find("+sec-nla, /sam-file:"), std::string::npos) << sam;
    EXPECT_NE(sam.find("-sec-tls, +auth"), std::string::npos) << sam;
    EXPECT_NE(sam.find("XAUTHORITY=" + (home / "authority-5").string()), std::string::npos) << sam;
    EXPECT_NE(readFile(home / "authority-5").find("0123456789abcdef"), std::string::npos);

    const Vorl::FileDescriptor silent = connectTo(port); // takes nobody's place
    EXPECT_TRUE(says("*, sees the picture\n*, does not see the picture\n"));
    const Vorl::FileDescriptor second = connectAndSee(); // takes its place
    EXPECT_TRUE(ends(client) || echoes(client));
    EXPECT_TRUE(journal.saw({"127.0.0.5 no longer sees root's session 3 after * s: another client "
                             "has taken its place"}));
    EXPECT_EQ(output({"password", "--remove", "root"}), "");
    EXPECT_TRUE(says("*root has no password*127.0.0.5*127.0.0.5*"));
    const std::string status = "STATUS=no session can be reached; connections: 2";
    EXPECT_TRUE(eventually([&] { return manager->next(MSG_DONTWAIT) == status; }));
    std::filesystem::remove(sessions / "3");
    for (const char* message : {"127.0.0.5 no longer sees *: the session has ended",
                                "127.0.0.5 never saw root's session 3, gone after * s: the *"})
        EXPECT_TRUE(journal.saw({"*: another client has taken its place", message}));
    EXPECT_TRUE(eventually([&] { return !connectTo(port, 0ms); })) << "the port is open";

    for (Journal::Record& record : journal.records()) {
        if (!record["MESSAGE"].ends_with("taken its place"))
            continue;
        EXPECT_EQ(record["VORL_SESSION"] + " " + record["VORL_USER"] + " " + record["VORL_ADDRESS"],
                  "3 root 127.0.0.5");
        EXPECT_GE(std::stoul(record["VORL_SENT"]), 12'000U);
        EXPECT_GE(std::stoul(record["VORL_RECEIVED"]), 12'000U);
        EXPECT_EQ(record["MESSAGE_ID"].size(), 32U);
    }
}

TEST_F(SessionServiceTest, WhatIsWrongClosesThePortUntilItIsMended) {
    const Vorl::FileDescriptor another = boundSocket("127.0.0.9", port); // is not the daemon's
    listen(another.get(), 1);
    logIn("3");
    setPassword();
    start();
    const auto mended = [&] { return says("root's session 3 can be reached at " + where + "\n*"); };
    const auto isClosed = [&](const std::string& why) {
        const auto result = says("no session can be reached\n*" + why + "*");
        return result ? (eventually([&] { return !connectTo(port, 0ms); })
                             ? result
                             : testing::AssertionFailure() << "the port is open")
                      : result;
    };
    EXPECT_TRUE(mended());
    EXPECT_EQ(journal.count("*previous instance*"), 0U);
    configure(R"(, "connection:polcy": "multiallow")");
    EXPECT_TRUE(isClosed("unknown key \"connection:polcy\""));
    configure("");
    EXPECT_TRUE(mended());
    std::filesystem::permissions(home / "passwd", std::filesystem::perms(0644));
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
    daemon.process->signal(SIGKILL);
    EXPECT_TRUE(says("*vorl_proxy does not answer: systemctl start vorl_proxy\n*"));
    daemon.start();
    EXPECT_TRUE(eventually([&] { return connectTo(port, 0ms).get() >= 0; }));

    const auto rival = run("another", {});
    EXPECT_EQ(rival->wait(), 1);
    EXPECT_NE(readFile(home / "another/errors").find("another session service owns"),
              std::string::npos);
    service->signal(SIGTERM);
    EXPECT_EQ(service->wait(), 0);
    EXPECT_TRUE(isClosed("") || says("vorl_session: vorl_session does not run: *"));
}

TEST_F(SessionServiceTest, AFrontIsToldWhomToExpectAndGetsATicket) {
    const std::filesystem::path hook = home / "hook", told = home / "told";
    std::ofstream(hook) << "#!/bin/sh\necho \"$1 $VORL_USER $VORL_ADDRESS:$VORL_PORT"
                           " $VORL_TICKET.\" >>"
                        << told << "\n[ \"$1\" != taken ]\n";
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
    const std::string line = output({"ticket", "root"}), rdp = output({"ticket", "--rdp", "root"});
    const std::string start =
        "xfreerdp /v:rdp.example /u:root '/load-balance-info:Cookie: mstshash=";
    ASSERT_TRUE(line.starts_with(start)) << line;
    const std::string token = line.substr(start.size(), line.find_last_of('\'') - start.size());
    EXPECT_EQ(token.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_EQ(token.size(), 32U);
    EXPECT_NE(rdp.find("\r\nloadbalanceinfo:s:Cookie: mstshash="), std::string::npos) << rdp;
    EXPECT_EQ(rdp.find(token), std::string::npos);
    EXPECT_TRUE(isTold("ticket root " + where + " " + token + ".\n"));
    EXPECT_NE(output({"ticket", "nobody"}).find("no password"), std::string::npos);
    const Vorl::FileDescriptor client = connectAndSee();
    EXPECT_TRUE(isTold("taken root " + where + " .\n"));
    EXPECT_TRUE(journal.saw({"FrontHook: * taken failed, status: 1"}));
    EXPECT_TRUE(isTold("ticket-end root " + where + " " + token + ".\n"));
    EXPECT_TRUE(says("*, but not by others while somebody is connected\n*"));
    std::filesystem::remove(sessions / "3");
    EXPECT_TRUE(isTold("closed root " + where + " .\n"));
}

TEST_F(SessionServiceTest, AfterACrashOrAStopWhatItLetInIsEnded) {
    logIn("3");
    setPassword();
    start();
    const Vorl::FileDescriptor client = connectAndSee();
    EXPECT_TRUE(journal.saw({"127.0.0.5 sees root's session 3"})); // no call waits for its answer
    service->signal(SIGKILL);
    service->wait();
    EXPECT_TRUE(echoes(client));
    service = run("service", {});
    EXPECT_TRUE(journal.saw({"vorl_session: vorl_proxy has a port or connections that a previous "
                             "instance of this service let in: *",
                             "signalVorlStopped, pid: *"}));
    EXPECT_EQ(daemon.process->wait(), 0);
    EXPECT_TRUE(ends(client));
    daemon.start(); // as systemd does
    const Vorl::FileDescriptor next = connectAndSee();
    EXPECT_TRUE(journal.saw({"127.0.0.5 sees *", "127.0.0.5 sees *"}));
    service->signal(SIGTERM); // nobody would watch over what it has let in
    EXPECT_EQ(service->wait(), 0);
    EXPECT_TRUE(ends(next));
    EXPECT_TRUE(eventually([&] { return !connectTo(port, 0ms); })) << "the port is open";
}

} // namespace VorlTest

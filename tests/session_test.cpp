#include "fixtures/daemon_test.h"

#include <netinet/tcp.h>
#include <sys/stat.h>

namespace VorlTest {

class Session : public DaemonTest {
protected:
    // The arguments that the shadow server gets after its socket.
    std::string arguments(const std::string& settings, const std::string& session = "") {
        start(settings);
        describe(session);
        const FileDescriptor client = open();
        const std::string all = shadow("arguments");
        EXPECT_TRUE(all.starts_with(socket)) << all;
        stop();
        return all.substr(std::min(socket.size(), all.size()));
    }

    const std::string socket = "/ipc-socket:" + (daemon.workDirectory / "proxy_7_0").string();
    const std::filesystem::path sam = daemon.workDirectory / "sam_3_0";
};

TEST_F(Session, GoesFromTheAllowanceToTheRelayAndAway) {
    daemon.environment.push_back("SESSION_USE=dropped: the daemon's entry begins so");
    daemon.environment.push_back("NO_EQUALS_SIGN");
    daemon.environment.push_back("SESSION_USERS=kept");
    start(R"("kerberos:realm": "REALM", "check:domain": true, "transport:shm": true,
             "transport:fps": 0, "tcp:keepalive:retries": 4)");
    const std::string before = daemon.resources();
    FileDescriptor client = open(7, 3);
    EXPECT_TRUE(echoes(client));
    const std::string pid = shadow("Pid");
    EXPECT_EQ(service.calls(),
              (std::vector<std::string>{"vorlTest", "proxyListenStarted 7 true",
                                        "proxyClientConnected 7 127.0.0.5", "vorlSessionInfoJson 7",
                                        "proxySessionConnected 7 " + pid + " 127.0.0.5"}));
    const std::string task = "actionCreateTransport: ";
    const std::string arguments =
        socket + ", stub:echo, -sec-rdp, +sec-nla, /sam-file:" + sam.string() + ", -sec-tls, +auth";
    const std::string variables = "DISPLAY=:5, XAUTHORITY=, FREERDP_STRONG_SESSION_CHECK=1, "
                                  "SESSION_USER=alice, SESSION_DOMAIN=REALM, "
                                  "FREERDP_SHM_ENABLED=1, FREERDP_SHM_ANY=1, FREERDP_FRAME_RATE=0";
    EXPECT_TRUE(journal.saw({
        "signalProxyAllowConnection: session id: 7, timeout: 10",
        task + "address: 0.0.0.0, port: " + std::to_string(port),
        "tcpListen: bind addr: 0.0.0.0, port: " + std::to_string(port),
        "tcpListen: listen: *, conn: 1",
        task + "socket set policy: SO_KEEPALIVE = 1",
        task + "socket set policy: SO_KEEPIDLE = 5",
        task + "socket set policy: SO_KEEPCNT = 4",
        task + "socket set policy: SO_KEEPINTVL = 2",
        task + "session id: 7, remote addr: 127.0.0.5, fd: *",
        "requestRdpTransport: session id: 7",
        "requestRdpTransport: display: 5, session id: 7, cmd: " SHADOW_STUB ", args: ? " +
            arguments + " ?",
        "unixConnect: path: " + socket.substr(12),
        "unixConnect: fd: *",
        task + "session id: 7, create transfer job, socket: *, unix: *",
    }));
    EXPECT_TRUE(journal.saw({"asyncWaitPid: added task, pid: " + pid}));
    EXPECT_TRUE(journal.saw({"runOwnerCommand: cmd: `" SHADOW_STUB "', owner: `(null)', pid: " +
                                 pid + ", process uid: 0",
                             "runOwnerCommand: add session envs: ? " + variables + " ?"}));
    EXPECT_EQ(shadow("program"), SHADOW_STUB);
    EXPECT_EQ(shadow("arguments"), arguments);
    EXPECT_TRUE(shadow("environment").ends_with("SESSION_USERS=kept, " + variables));
    for (const char* dropped : {"SESSION_USE=", "NO_EQUALS_SIGN"})
        EXPECT_EQ(shadow("environment").find(dropped), std::string::npos);
    EXPECT_EQ(shadow("descriptors"), "0 1 2 ");
    EXPECT_EQ(shadow("Umask") + " " + shadow("SigBlk"), "0027 0000000000000000");
    EXPECT_EQ(readFile(sam), "alice:::878d8014606cda29677a44efa1353fc7:::\n");
    using std::filesystem::perms;
    EXPECT_EQ(status(sam).permissions(), perms(0600));
    EXPECT_EQ(status(daemon.workDirectory / "rdp_transport_1000_0.log").permissions(), perms(0640));
    EXPECT_EQ(clientOption(SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(clientOption(IPPROTO_TCP, TCP_KEEPIDLE), 5);
    EXPECT_EQ(clientOption(IPPROTO_TCP, TCP_KEEPCNT), 4);
    EXPECT_EQ(clientOption(IPPROTO_TCP, TCP_KEEPINTVL), 2);
    EXPECT_EQ(clientOption(IPPROTO_TCP, TCP_NODELAY), 1);

    client.reset();
    EXPECT_TRUE(journal.saw({"JobTransfer: job stopped, session id: 7, result: recv end stream",
                             "PeriodicTask: remove job, session id: 7",
                             "JobTransferStopped: kill transport, pid: " + pid,
                             "*: child ended, pid: " + pid + ", killed by signal: 15"}));
    EXPECT_TRUE(holds(before));
}

TEST_F(Session, FilesOfOneSessionAreToldApartByTheOrdinal) {
    start();
    FileDescriptor first = open(7, 3), second = open(7, 3);
    EXPECT_NE(shadowPid(0), shadowPid(1));
    for (const char* file : {"proxy_7_0", "sam_3_0", "proxy_7_1", "sam_3_1"})
        EXPECT_TRUE(exists(daemon.workDirectory / file)) << file;
    EXPECT_TRUE(echoes(first, "to the first") && echoes(second, "to the second"));
    first.reset();
    second.reset();
    EXPECT_TRUE(journal.saw({"JobTransferStopped: child ended, *", "*Stopped: child ended, *"}));
    first = open(7, 4);
    EXPECT_TRUE(exists(daemon.workDirectory / "sam_4_0"));
    second = open(7, 4);
    first.reset();
    EXPECT_TRUE(eventually([&] { return !exists(daemon.workDirectory / "sam_4_0"); }));
    first = open(7, 4); // has the name of the second, which lives on
    second.reset();
    EXPECT_TRUE(journal.saw({"*Stopped: child ended, *", "*Stopped: child ended, *",
                             "*Stopped: child ended, *", "*Stopped: child ended, *"}));
    for (const char* file : {"proxy_7_1", "sam_4_1"})
        EXPECT_TRUE(exists(daemon.workDirectory / file)) << file;
    EXPECT_TRUE(echoes(first));
}

TEST_F(Session, AClientThatConnectsAgainAtOnceGetsTheNamesOfItsLastConnection) {
    start();
    for (int i = 0; i < 5; ++i) {
        FileDescriptor client = open();
        client.reset();
        EXPECT_TRUE(journal.saw({"JobTransfer: job stopped, *"}));
        journal.forget();
    }
    EXPECT_TRUE(echoes(open()));
    EXPECT_FALSE(exists(daemon.workDirectory / "rdp_transport_1000_1.log"));
}

TEST_F(Session, AJobRemovesTheSamFileThatItWroteAndItsSocket) {
    start();
    describe(R"("sec:nla": false, "sec:tls": true)");
    FileDescriptor without = open(7, 3); // writes no SAM file
    describe();
    FileDescriptor with = open(8, 3); // has the same name for its own
    without.reset();
    EXPECT_TRUE(journal.saw({"JobTransferStopped: child ended, *"}));
    EXPECT_TRUE(eventually([&] { return !exists(daemon.workDirectory / "proxy_7_0"); }));
    EXPECT_TRUE(exists(sam));
    std::filesystem::remove(daemon.workDirectory / "proxy_8_0");
    EXPECT_EQ(mknod((daemon.workDirectory / "proxy_8_0").c_str(), S_IFSOCK | 0600, 0), 0);
    with.reset();
    EXPECT_TRUE(
        eventually([&] { return !exists(sam) && !exists(daemon.workDirectory / "proxy_8_0"); }));
    std::ofstream(sam) << "of somebody else";
    describe(R"("sec:nla": false, "sec:tls": true)");
    open(7, 3).reset();
    EXPECT_TRUE(eventually([&] { return !exists(daemon.workDirectory / "proxy_7_0"); }));
    EXPECT_EQ(readFile(sam), "of somebody else");
}

TEST_F(Session, TheArgumentsComeFromTheTemplateAndTheDescription) {
    EXPECT_EQ(arguments(R"("x11rdp:args": null, "kerberos:keytab": "/dev/null")",
                        R"("display": null, "sec:nla": false, "sec:auth": false)"),
              ", /max-connections:1, -sec-rdp, -sec-nla, -sec-tls");
    EXPECT_TRUE(
        shadow("environment")
            .ends_with(
                "DISPLAY=:0, XAUTHORITY=, FREERDP_STRONG_SESSION_CHECK=1, SESSION_USER=alice"));
    EXPECT_FALSE(exists(sam));
    EXPECT_TRUE(arguments(R"("x11rdp:args": ["/ipc-socket:%{socket}", "<%{ho%{home}me}>"])")
                    .starts_with(", <>, "));
    EXPECT_EQ(arguments(R"("x11rdp:args": ["/ipc-socket:%{socket}",
                           "%{home}|%{display}|%{authfile}|%{display}", 5],
                           "transport:debug": true, "check:domain": true)",
                        R"("display": -3, "xauthfile": "<%{home}>", "home": "/home/alice",
                           "sec:rdp": true, "sec:tls": true, "ntlm": "")"),
              ", /home/alice|-3|</home/alice>|-3, 5, +sec-rdp, +sec-nla, +sec-tls, +auth");
    EXPECT_TRUE(shadow("environment")
                    .ends_with("DISPLAY=:-3, XAUTHORITY=<%{home}>, FREERDP_STRONG_SESSION_CHECK=1, "
                               "SESSION_USER=alice"));
}

TEST_F(Session, TheProgramThatCameWithTheDaemonGetsMoreArguments) {
    const ScopedMount libexec("/usr/libexec");
    std::filesystem::create_directory("/usr/libexec/vorl");
    std::filesystem::copy(SHADOW_STUB, "/usr/libexec/vorl/any-name");
    const std::string program = R"("x11rdp:path": "/usr/libexec/vorl/any-name", )";
    const std::string keytab = R"("kerberos:keytab": "/dev/null", )";
    const std::string security =
        ", -sec-rdp, +sec-nla, /sam-file:" + sam.string() + ", -sec-tls, +auth";
    EXPECT_EQ(arguments(program + keytab + R"("debug:level": "debug")"),
              ", stub:echo, /keytab:/dev/null" + security + ", /log-level:INFO");
    EXPECT_EQ(arguments(program + R"("kerberos:keytab": "/no/file", "debug:level": "info")"),
              ", stub:echo" + security + ", /log-level:INFO");
    EXPECT_TRUE(journal.saw({"prepareX11RdpArgs: keytab not exists, path: `/no/file'"}));
    EXPECT_EQ(arguments(program + R"("debug:level": "trace")"),
              ", stub:echo" + security + ", /log-level:ERROR");
    EXPECT_TRUE(journal.saw({"runOwnerCommand: add session envs: *"})) << "when tracing as well";
    EXPECT_EQ(arguments(program + R"("debug:level": "none", "transport:debug": true)"),
              ", stub:echo" + security + ", /log-level:DEBUG");
    std::filesystem::copy(SHADOW_STUB, "/usr/libexec/vorl/freerdp-shadow-cli");
    EXPECT_EQ(arguments(R"("x11rdp:path": null)"), ", stub:echo" + security + ", /log-level:INFO");
    EXPECT_EQ(journal.count("*: rdp transport changed to: *"), 0u);
}

TEST_F(Session, AMissingProgramIsLookedForInTheUsualPlaces) {
    start(R"("x11rdp:path": "/nowhere")");
    const ScopedMount libexec("/usr/libexec"), bin("/usr/bin"), local("/usr/local/bin");
    std::filesystem::create_directory("/usr/libexec/vorl");
    std::ofstream("/usr/libexec/vorl/freerdp-shadow-cli") << "of any kind";
    std::ofstream("/usr/local/bin/freerdp-shadow-cli") << "of any kind";
    for (const std::string place : {"/usr/libexec/vorl/", "/usr/bin/", "/usr/local/bin/"}) {
        std::filesystem::copy(SHADOW_STUB, place + "freerdp-shadow-cli",
                              std::filesystem::copy_options::overwrite_existing);
        EXPECT_TRUE(echoes(open()));
        EXPECT_TRUE(journal.saw(
            {"requestRdpTransport: rdp transport changed to: `" + place + "freerdp-shadow-cli'"}));
        std::filesystem::remove(place + "freerdp-shadow-cli");
    }
    allow();
    EXPECT_TRUE(ends(connectTo(port)));
    EXPECT_TRUE(journal.saw({
        "requestRdpTransport: rdp transport not found, check config option: `x11rdp:path'",
        "actionCreateTransport: exception: requestRdpTransport, session id: 7",
    }));
}

} // namespace VorlTest

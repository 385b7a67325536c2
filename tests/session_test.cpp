#include <netinet/tcp.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "fixtures/stage.h"

namespace VorlTest {

using Session = Stage;

namespace {

// Of a socket in another process.
int option(pid_t pid, int fd, int level, int name) {
    const Fd process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    const Fd copy(static_cast<int>(syscall(SYS_pidfd_getfd, int{process}, fd, 0)));
    int value = -1;
    socklen_t size = sizeof(value);
    getsockopt(copy, level, name, &value, &size);
    return value;
}

mode_t mode(const std::filesystem::path& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 0777 : 0;
}

} // namespace

TEST_F(Session, GoesFromTheAllowanceToTheRelayAndAway) {
    daemon.environment.push_back("SESSION_USE=begins as an entry of the daemon's: dropped");
    daemon.environment.push_back("SESSION_USERS=kept");
    start(R"("kerberos:realm": "REALM", "check:domain": true, "transport:shm": true,
             "transport:fps": 0, "tcp:keepalive:retries": 4)");
    const std::string before = daemon.holdings();

    const Fd client = open(7, 3);
    EXPECT_TRUE(echoes(client));
    EXPECT_EQ(connectTo(port, 0ms), -1) << "a second client";
    Json::Value facts = shadow();
    const std::string pid = facts["Pid:"].asString();
    EXPECT_EQ(service.calls(),
              (std::vector<std::string>{"vorlTest", "proxyListenStarted 7 true",
                                        "proxyClientConnected 7 127.0.0.5", "vorlSessionInfoJson 7",
                                        "proxySessionConnected 7 " + pid + " 127.0.0.5"}));

    const std::string socket = daemon.workDirectory / "proxy_7_0";
    const std::string sam = daemon.workDirectory / "sam_3_0";
    const std::string arguments = "/ipc-socket:" + socket +
                                  ", stub:echo, -sec-rdp, +sec-nla, /sam-file:" + sam +
                                  ", -sec-tls, +auth";
    const std::string variables =
        "DISPLAY=:5, XAUTHORITY=, FREERDP_STRONG_SESSION_CHECK=1, "
        "SESSION_USER=alice, SESSION_DOMAIN=REALM, FREERDP_SHM_ENABLED=1, "
        "FREERDP_SHM_ANY=1, FREERDP_FRAME_RATE=0";
    EXPECT_TRUE(journal.saw({
        "signalProxyAllowConnection: session id: 7, timeout: 10",
        "actionCreateTransport: address: 0.0.0.0, port: " + std::to_string(port),
        "tcpListen: bind addr: 0.0.0.0, port: " + std::to_string(port),
        "tcpListen: listen: *, conn: 1",
        "actionCreateTransport: socket set policy: SO_KEEPALIVE = 1",
        "actionCreateTransport: socket set policy: SO_KEEPIDLE = 5",
        "actionCreateTransport: socket set policy: SO_KEEPCNT = 4",
        "actionCreateTransport: socket set policy: SO_KEEPINTVL = 2",
        "actionCreateTransport: session id: 7, remote addr: 127.0.0.5, fd: *",
        "requestRdpTransport: session id: 7",
        "requestRdpTransport: display: 5, session id: 7, cmd: " SHADOW_STUB ", args: ? " +
            arguments + " ?",
        "asyncWaitPid: added task, pid: " + pid,
        "unixConnect: path: " + socket,
        "unixConnect: fd: *",
        "actionCreateTransport: session id: 7, create transfer job, socket: *, unix: *",
    }));
    EXPECT_TRUE(journal.saw({
        "runOwnerCommand: cmd: `" SHADOW_STUB "', owner: `(null)', pid: " + pid +
            ", process uid: 0",
        "runOwnerCommand: add session envs: ? " + variables + " ?",
    }));

    EXPECT_EQ(facts["program"], SHADOW_STUB);
    EXPECT_EQ(facts["arguments"], arguments);
    const std::string environment = facts["environment"].asString();
    EXPECT_TRUE(environment.ends_with("SESSION_USERS=kept, " + variables)) << environment;
    EXPECT_EQ(environment.find("SESSION_USE="), std::string::npos) << environment;
    EXPECT_EQ(facts["descriptors"], "0 1 2 ");
    EXPECT_EQ(facts["Umask:"], "0027");
    EXPECT_EQ(facts["SigBlk:"], "0000000000000000");
    EXPECT_EQ(facts["SigIgn:"], "0000000000000003") << "SIGHUP and SIGINT";
    EXPECT_EQ(readFile(sam), "alice:::878d8014606cda29677a44efa1353fc7:::\n");
    EXPECT_EQ(mode(sam) & 0007, 0u);
    EXPECT_EQ(mode(daemon.workDirectory / "rdp_transport_1000_0.log"), 0640u);

    for (const Journal::Record& record : journal.records()) {
        const std::string& message = record.at("MESSAGE");
        if (message.find("remote addr: 127.0.0.5, fd: ") != std::string::npos) {
            const int fd = std::stoi(message.substr(message.rfind(' ')));
            const pid_t process = daemon.process->pid();
            EXPECT_EQ(option(process, fd, SOL_SOCKET, SO_KEEPALIVE), 1);
            EXPECT_EQ(option(process, fd, IPPROTO_TCP, TCP_KEEPIDLE), 5);
            EXPECT_EQ(option(process, fd, IPPROTO_TCP, TCP_KEEPCNT), 4);
            EXPECT_EQ(option(process, fd, IPPROTO_TCP, TCP_KEEPINTVL), 2);
        }
    }

    shutdown(client, SHUT_RDWR);
    EXPECT_TRUE(journal.saw({"JobTransfer: job stopped, session id: 7, result: recv end stream",
                             "PeriodicTask: remove job, session id: 7",
                             "JobTransferStopped: kill transport, pid: " + pid}));
    EXPECT_TRUE(eventually([&] { return daemon.holdings() == before; })) << daemon.holdings();
}

TEST_F(Session, FilesOfOneSessionAreToldApartByTheOrdinal) {
    start();
    Fd first = open(7, 3);
    const Fd second = open(7, 3);
    EXPECT_NE(shadow("rdp_transport_1000_0.log")["Pid:"],
              shadow("rdp_transport_1000_1.log")["Pid:"]);
    for (const char* file : {"proxy_7_0", "sam_3_0", "proxy_7_1", "sam_3_1"}) {
        EXPECT_TRUE(std::filesystem::exists(daemon.workDirectory / file)) << file;
    }
    EXPECT_TRUE(echoes(first, "to the first") && echoes(second, "to the second"));
    shutdown(first, SHUT_RDWR);
    shutdown(second, SHUT_RDWR);
    EXPECT_TRUE(
        eventually([&] { return journal.count("JobTransferStopped: child ended, *") == 2; }));
    first = open(7, 4);
    EXPECT_TRUE(std::filesystem::exists(daemon.workDirectory / "sam_4_0"));
}

TEST_F(Session, IsEndedByTheServiceForItsProcessAlone) {
    start(stub("slow")); // its end is not seen before the relay was told to stop
    const Fd client = open(7);
    const uint32_t pid = static_cast<uint32_t>(std::stoi(shadow()["Pid:"].asString()));
    journal.forget();
    service->signalSessionDisconnected(8, pid, "a");
    service->signalSessionDisconnected(7, pid + 1, "b");
    EXPECT_TRUE(echoes(client));
    service->signalSessionDisconnected(7, pid, "c");
    EXPECT_TRUE(ends(client));
    const std::string number = std::to_string(pid);
    EXPECT_TRUE(journal.saw({
        "signalSessionDisconnected: session id: 8, pid: " + number + ", remote addr: `a'",
        "signalSessionDisconnected: session id: 7, pid: " + std::to_string(pid + 1) + ", *: `b'",
        "signalSessionDisconnected: session id: 7, pid: " + number + ", remote addr: `c'",
        "JobTransferStopped: kill transport, pid: " + number,
        "JobTransfer: job stopped, session id: 7, result: unknown",
    }));
    EXPECT_TRUE(eventually([&] { return kill(static_cast<pid_t>(pid), 0) != 0; }));
}

} // namespace VorlTest

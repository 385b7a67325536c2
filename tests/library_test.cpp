#include "bus/bus_loop.h"
#include "common/accounts.h"
#include "common/child_process.h"
#include "common/error.h"
#include "common/json_config.h"
#include "common/readiness.h"
#include "common/sockets.h"
#include "common/strings.h"
#include "common/transport_handle.h"
#include "fixtures/client.h"
#include "fixtures/daemon.h"
#include "fixtures/failing_call.h"
#include "fixtures/journal.h"
#include "logger"

#include <csignal>

#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/syscall.h>

namespace VorlTest {

using namespace Vorl;

class Library : public testing::Test {
protected:
    void SetUp() override { Syslog::setDebugLevel(DebugLevel::Debug); }

    Journal journal;
};

TEST_F(Library, ABusLoopThatIsLeftBeforeItIsEnteredEnds) {
    BusLoop loop;
    loop.leave();
    loop.enter();
}

TEST_F(Library, JsonKeysAreFlatAndConvertAsJsoncppDoes) {
    const JsonConfigString config(R"({"listen:port": 4000, "listen": {"addr": "x"}, "null": null,
        "text": "5", "number": 5, "list": ["a", 2], "nested": [[1]]} // remark)");
    EXPECT_EQ(config.getInteger("listen:port", 1), 4000);
    EXPECT_EQ(config.getString("listen:addr", "fallback"), "fallback");
    EXPECT_EQ(config.getInteger("null", 7), 0);
    EXPECT_EQ(config.getString("number"), "5");
    EXPECT_EQ(config.getDouble("missing", 0.5), 0.5);
    EXPECT_THROW((void)config.getInteger("text"), Json::LogicError);
    EXPECT_THROW((void)config.getStringList("nested"), Json::LogicError);
    EXPECT_EQ(config.getVectorList("list"), (std::vector<std::string>{"a", "2"}));
    EXPECT_TRUE(config.getStringList("text").empty() && config.getStringList("missing").empty());
    EXPECT_TRUE(config.hasValue("null") && !config.hasValue("missing"));
    EXPECT_EQ(config.getKeys().size(), 7u);
    int number = 0;
    double real = 0;
    bool flag = false;
    config.getValue("number") >> number;
    config.getValue("number") >> real;
    config.getValue("number") >> flag;
    EXPECT_TRUE(number == 5 && real == 5 && flag);
}

TEST_F(Library, TextsAreReplacedFromTheStartAgainAndAgain) {
    EXPECT_EQ(Utils::stringReplace("aaabbb", "ab", ""), "");
    EXPECT_EQ(Utils::stringReplace("<n><n>", "<n>", -7), "-7-7");
    EXPECT_EQ(Utils::joinString(), "");
    EXPECT_EQ(Utils::stringLower("AbÄ") + Utils::stringUpper("aBä"), "abÄABä");
}

TEST_F(Library, SocketsAreOpenedAsTheirCallersRelyOn) {
    std::string address;
    const FileDescriptor listener(Socket::tcpListen("127.0.0.1", 0, 1));
    tcp_info info{};
    socklen_t size = sizeof(info);
    getsockopt(listener.get(), IPPROTO_TCP, TCP_INFO, &info, &size);
    EXPECT_EQ(info.tcpi_sacked, 1u) << "is a listener's backlog";
    EXPECT_EQ(fcntl(listener.get(), F_GETFD), FD_CLOEXEC);
    const FileDescriptor client = connectTo(portOf(listener));
    const FileDescriptor accepted(Socket::tcpAccept(listener.get(), &address));
    EXPECT_EQ(address, "127.0.0.5");
    EXPECT_EQ(fcntl(accepted.get(), F_GETFD), 0);
    EXPECT_EQ(Socket::tcpListen("localhost", 0, 1), -1); // the kernel would take it for a broadcast
    EXPECT_EQ(Socket::tcpAccept(-1, nullptr), -1);

    const std::string path = makeDirectory() / std::string(200, 'x');
    sockaddr_un cut{AF_UNIX, {}};
    path.copy(cut.sun_path, 107);
    const FileDescriptor server(socket(AF_UNIX, SOCK_STREAM, 0));
    EXPECT_EQ(bind(server.get(), reinterpret_cast<sockaddr*>(&cut), sizeof(cut)), 0);
    EXPECT_EQ(Socket::unixConnect(path), -1);
    EXPECT_EQ(errno, ECONNREFUSED) << "is kept for the caller";
    EXPECT_EQ(listen(server.get(), 1), 0);
    const FileDescriptor connected(Socket::unixConnect(path));
    EXPECT_EQ(fcntl(connected.get(), F_GETFD), 0);
    EXPECT_TRUE(journal.saw({"tcpListen: bind failed, error: Cannot assign *, code: 99",
                             "tcpAccept: accept failed, error: Bad file descriptor, code: 9",
                             "unixConnect: unix path is long, truncated to size: 107",
                             "unixConnect: path: " + path.substr(0, 107), "unixConnect: fd: *"}));
}

TEST_F(Library, OnlyInputIsReadiness) {
    EXPECT_FALSE(Utils::hasInput(-1, -1));
    EXPECT_EQ(Utils::hasData(-1), 0);
    const FileDescriptor unconnected = boundSocket("127.0.0.1", 0);
    EXPECT_FALSE(Utils::hasInput(unconnected.get(), 0)) << "reports a hang-up";
    EXPECT_THROW((void)Utils::hasData(open("/dev/null", O_RDONLY)), vorl_error);
    int pipe[2];
    ASSERT_EQ(pipe2(pipe, O_CLOEXEC), 0);
    std::signal(SIGALRM, [](int) {});
    ualarm(10'000, 0);
    EXPECT_FALSE(Utils::hasInput(pipe[0], 50)) << "goes on after a signal";
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{0, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_THROW((void)Utils::hasInput(pipe[0], 0), vorl_error);
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_TRUE(journal.saw({"hasInput: poll failed, error: Invalid argument, code: 22"}));
}

TEST_F(Library, AccountsAndGroupsAreLookedUp) {
    const std::filesystem::path directory = makeDirectory();
    std::ofstream(directory / "group") << "staff:x:1234:b,a\n";
    std::ofstream(directory / "passwd") << "bob:x:4711:4712:B:/nowhere:/bin/sh\n";
    const ScopedMount groups("/etc/group", directory / "group");
    const ScopedMount accounts("/etc/passwd", directory / "passwd");
    EXPECT_EQ(Utils::getGroupMembers("staff"), (std::list<std::string>{"b", "a"}));
    EXPECT_TRUE(Utils::getGroupInfo("staff", false)->members.empty());
    const auto bob = Utils::getUserInfo("bob", false);
    EXPECT_EQ(bob->user + bob->home + bob->shell + bob->gecos, "bob/nowhere/bin/shB");
    EXPECT_TRUE(bob->uid == 4711 && bob->gid == 4712 && bob->groups.empty());
    EXPECT_EQ(Utils::getUserUid("bob"), 4711u);
    EXPECT_EQ(Utils::getUserInfo("", true), nullptr);
    EXPECT_EQ(Utils::getGroupInfo("", true), nullptr);
    EXPECT_EQ(Utils::getUserUid("nobody-known") + Utils::getGroupGid("nobody-known"), 0u);
    EXPECT_FALSE(Utils::setOwner(directory / "missing", "bob", "staff"));
    EXPECT_FALSE(Utils::setOwner(directory, "nobody-known", ""));
    if (hasAllAccounts()) {
        struct stat status {};
        for (const auto& [group, gid] : {std::pair("", 4712u), {"staff", 1234u}}) {
            EXPECT_TRUE(Utils::setOwner(directory, "bob", group));
            stat(directory.c_str(), &status);
            EXPECT_TRUE(status.st_uid == 4711 && status.st_gid == gid);
        }
        EXPECT_TRUE(journal.saw({"setOwner: path: *, user: bob, group: skipped"}));
    }
    EXPECT_TRUE(journal.saw({"getUserInfo: getpwnam_r failed, user: `nobody-known', error: *",
                             "getGroupInfo: getgrnam_r failed, group: `nobody-known', error: *",
                             "setOwner: path: *missing, user: bob, group: staff",
                             "setOwner: chown failed, error: *, code: 2"}));
}

// In a child process, which loses its privileges.
TEST_F(Library, AFailedSwitchIsToldFromAPartOfOne) {
    if (!hasAllAccounts())
        GTEST_SKIP() << "needs root";
    const pid_t child = fork();
    if (child == 0) {
        char name[] = "few", home[] = "/", root[] = "root";
        passwd entry{name, nullptr, 4711, 4712, nullptr, home, nullptr};
        passwd privileged{root, nullptr, 4711, 4712, nullptr, home, nullptr};
        const bool unchanged = Utils::switchToUser(UserInfo(privileged, true)) && getuid() == 0;
        const bool switched = Utils::switchToUser(UserInfo(entry, false)) && getuid() == 4711;
        entry.pw_uid = 4713;
        const bool otherUser = Utils::switchToUser(UserInfo(entry, true));
        entry.pw_gid = 4714;
        const bool otherGroup = Utils::switchToUser(UserInfo(entry, true));
        _exit(unchanged && switched && !otherUser && !otherGroup ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(journal.saw({"switchToUser: empty groups, username: `few'",
                             "switchToUser: setgroups failed, error: *, code: 1",
                             "switchToUser: setuid failed, error: *, code: 1",
                             "switchToUser: setgid failed, error: *, code: 1"}));
}

TEST_F(Library, AnOwnersProgramRunsAndLogsAsTheOwner) {
    if (!hasAllAccounts())
        GTEST_SKIP() << "needs root";
    const ScopedMount tmp("/tmp");
    const std::filesystem::path directory = makeDirectory(), hidden = makeDirectory();
    create_directory(hidden / "home");
    permissions(hidden, std::filesystem::perms::owner_all); // entered before the switch
    ASSERT_EQ(chown((hidden / "home").c_str(), 4712, 4712), 0);
    create_directory(directory / "home");
    ASSERT_EQ(chown((directory / "home").c_str(), 4713, 4712), 0);
    std::ofstream(directory / "passwd")
        << "bob:x:4711:4712:B:/nowhere:/bin/sh\n"
        << "eve:x:4712:4712:E:" << (hidden / "home").string() << ":/bin/sh\n"
        << "joe:x:4713:4712:J:" << (directory / "home").string()
        << ":/bin/sh\nbad:x:4294967295:4712::/:/bin/sh\n";
    const ScopedMount accounts("/etc/passwd", directory / "passwd");
    const auto run = [](const char* owner, const std::string& command) {
        return Utils::runChildProcessWait("/bin/sh", {"-c", command}, {"X=1"}, owner);
    };
    EXPECT_TRUE(run("bob", "id -u; echo $HOME $X >&2; exit 3"));
    EXPECT_EQ(readFile("/tmp/.vorl_bob/sh.log"), "4711\n/nowhere 1\n");
    EXPECT_EQ(status(std::filesystem::path("/tmp/.vorl_bob")).permissions(),
              std::filesystem::perms::owner_all);
    EXPECT_TRUE(journal.saw({"switchToUser: user: bob, uid: 4711, gid: 4712, home: /nowhere",
                             "switchToUser: chdir failed, error: *, code: 2",
                             "runOwnerCommand: switched user: bob, current uid: 4711, gid: 4712"}));
    EXPECT_TRUE(journal.saw({"runChildProcessWait: child started, pid *",
                             "runChildProcessWait: child ended, pid: *, exit code: 3"}));
    journal.forget();
    EXPECT_TRUE(run("eve", "") && run("joe", "id -u") && run("bad", "exit 3"));
    EXPECT_TRUE(journal.saw({"switchToUser: setuid failed, *", "*: child ended, *exit code: 1"}));
    EXPECT_EQ(journal.count("switchToUser: chdir failed, *"), 0u);
    EXPECT_EQ(readFile(directory / "home/.vorl/sh.log"), "4713\n");
    EXPECT_TRUE(run("nobody-known",
                    "x=$(readlink /proc/$$/fd/1 /proc/$$/fd/2); echo \"$x\" > /tmp/outputs"));
    EXPECT_EQ(readFile("/tmp/outputs"), "/dev/null\n/dev/null\n");
}

TEST_F(Library, AProgramStartsWithoutSignalsAndDescriptorsOfOurs) {
    for (int number = 1; number < 32; ++number)
        std::signal(number, number == SIGTERM || number == SIGCHLD ? SIG_IGN : SIG_DFL);
    const std::string log = makeDirectory() / "log";
    const auto run = [&](const char* program, const std::list<std::string>& arguments) {
        return Utils::runChildProcessBack(program, arguments, {}, nullptr, log.c_str())
            .second.get();
    };
    EXPECT_EQ(run("/bin/grep", {"SigIgn", "/proc/self/status"}), -1) << "already reaped";
    EXPECT_EQ(readFile(log), "SigIgn:\t0000000000000003\n") << "SIGHUP and SIGINT";
    EXPECT_EQ(journal.count("*waitpid*"), 0u);
    std::signal(SIGCHLD, SIG_DFL);
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const FileDescriptor high(fcntl(0, F_DUPFD, 900)); // above the limit that comes now
    const rlimit low{800, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &low);
    EXPECT_EQ(run("/bin/ls", {"/proc/self/fd"}), 0);
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(readFile(log), "0\n1\n2\n3\n");
    const ScopedMount noFalse("/bin/false", "/etc/passwd");
    EXPECT_EQ(run("/etc/passwd", {}), 0) << "nothing could be started";
}

TEST_F(Library, NothingIsStartedWhereASystemCallFails) {
    const std::string log = makeDirectory() / "log";
    const auto run = [&] {
        return Utils::runChildProcessBack("/bin/echo", {"started"}, {}, nullptr, log.c_str());
    };
    whileFailing(SYS_close_range, ENOSYS, [&] { EXPECT_NE(run().second.get(), 0); });
    whileFailing(SYS_clone, EAGAIN, [&] { EXPECT_THROW(run(), vorl_error); });
    EXPECT_TRUE(journal.saw({"runOwnerCommand: close_range failed, *, code: 38",
                             "runChildProcess: fork failed, *, code: 11"}));
    EXPECT_EQ(readFile(log), "");
}

TEST_F(Library, AConnectIsTriedAgainWhereItsFailureMayPass) {
    for (const int error :
         {ECONNREFUSED, EAGAIN, EINTR, EMFILE, ENFILE, ENOBUFS, ENOMEM, EACCES, ENOENT}) {
        int attempts = 1;
        whileFailing(SYS_connect, static_cast<unsigned>(error), [&] {
            EXPECT_LT(Socket::unixConnectWhile("/nowhere", [&] { return ++attempts < 3; }), 0);
        });
        EXPECT_EQ(attempts, error == EACCES || error == ENOENT ? 1 : 3) << error;
    }
}

TEST_F(Library, SignalsReachAChildAtOnceAndDoNotEndTheWaitForIt) {
    struct sigaction handled {};
    handled.sa_handler = [](int) {};
    sigaction(SIGTERM, &handled, nullptr); // as the daemon has a handler
    sigaction(SIGUSR1, &handled, nullptr); // interrupts a system call
    for (int i = 0; i < 20; ++i) {
        const int pid = Utils::runChildProcess("/bin/sleep", {"60"}, {});
        kill(pid, SIGTERM);
        int status = 0;
        ASSERT_TRUE(eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; }, 5s));
        EXPECT_EQ(status, SIGTERM);
    }
    signal(SIGTERM, SIG_DFL);
    std::thread waiter([] {
        Utils::runChildProcessWait("/bin/sh", {"-c", "sleep 1; exit 3"}, {});
    });
    EXPECT_TRUE(journal.saw({"runChildProcessWait: child started, *"}));
    for (int i = 0; i < 20; ++i, std::this_thread::sleep_for(5ms))
        pthread_kill(waiter.native_handle(), SIGUSR1);
    waiter.join();
    EXPECT_TRUE(journal.saw({"runChildProcessWait: child ended, pid: *, exit code: 3"}));
}

TEST_F(Library, AChildWithoutAThreadThatWaitsForItEndsInTheSameWay) {
    const int pid = Utils::runChildProcess("/bin/sleep", {"60"}, {});
    TransportHandle child{pid, std::async(std::launch::deferred, [pid] {
                              int status = -1;
                              waitpid(pid, &status, 0);
                              return status;
                          })};
    EXPECT_TRUE(transportRunning(child));
    terminateTransport(child);
    releaseTransport(child, std::chrono::steady_clock::now(), "caller");
    EXPECT_TRUE(journal.saw({"caller: child ended, pid: *, killed by signal: 15"}));
    EXPECT_EQ(journal.count("*: transport does not end, *"), 0u);
}

TEST_F(Library, TheEndOfAChildIsLogged) {
    EXPECT_FALSE(Utils::runChildProcessWait("/nowhere", {}, {}));
    EXPECT_FALSE(Utils::processRunning(0) || Utils::processRunning(-1));
    EXPECT_TRUE(Utils::processRunning(getpid()));
    for (const int status : {0x1234 & 0xff00, 9, 0x137f})
        Utils::syslogWaitStatus(status, "caller", 5);
    EXPECT_TRUE(journal.saw({"runChildProcess: program not found: /nowhere",
                             "sessionNotification: exception: runChildProcess",
                             "caller: child ended, pid: 5, exit code: 18",
                             "caller: child ended, pid: 5, killed by signal: 9",
                             "caller: child ended, pid: 5, status: 4991"}));
}

} // namespace VorlTest

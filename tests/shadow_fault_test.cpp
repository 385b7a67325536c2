#include "fixtures/daemon_test.h"

#include <linux/sched.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace VorlTest {

class ShadowFault : public DaemonTest {
protected:
    // Waits until what comes in for a client that does not read has come to a stand.
    static void expectFull(const FileDescriptor& client) {
        int now = 0, before = -1;
        EXPECT_TRUE(eventually([&] {
            before = std::exchange(now, before);
            ioctl(client.get(), FIONREAD, &now);
            std::this_thread::sleep_for(100ms);
            return now > 0 && now == before;
        }));
    }

    // Starts a process with that number, once it is free; -1 when it does not become free.
    static pid_t startWithNumber(pid_t number) {
        clone_args how{};
        how.exit_signal = SIGCHLD;
        how.set_tid = reinterpret_cast<uintptr_t>(&number);
        how.set_tid_size = 1;
        long result = -1;
        EXPECT_TRUE(eventually([&] {
            result = syscall(SYS_clone3, &how, sizeof(how));
            if (result == 0)
                pause();
            return result > 0;
        }));
        return static_cast<pid_t>(result);
    }
};

TEST_F(ShadowFault, AFloodToAClientThatDoesNotReadHoldsNothingUp) {
    start(stub("flood"));
    const FileDescriptor first = open(7);
    expectFull(first);
    service->signalSessionDisconnected(7, shadowPid(), "");
    service->signalProxyListenTimeout(1);
    EXPECT_TRUE(
        journal.saw({"JobTransferStopped: child ended, *", "signalProxyListenTimeout: *"}, 3s));
    service.answer("proxySessionConnected", Answer::Error); // lets the client go while it is full
    allow(7);
    const FileDescriptor second = connectTo(port);
    EXPECT_TRUE(journal.saw({"actionCreateTransport: exception: as told, session id: 7"}));
    service.answer("proxySessionConnected", Answer::Reply);
    const FileDescriptor third = open(8);
    expectFull(third);
    daemon.process->signal(SIGTERM);
    EXPECT_EQ(daemon.process->wait(5s), 0);
    EXPECT_TRUE(journal.saw({"JobTransfer: job stopped, session id: 7, result: unknown"}));
    EXPECT_TRUE(journal.saw({"JobTransfer: job stopped, session id: 8, result: unknown"}));
}

TEST_F(ShadowFault, OneThatDoesNotEndIsKilledAfterAGrace) {
    const std::string task = "JobTransferStopped: ", told = task + "kill transport, pid: *",
                      killed = task + "transport does not end, killed, pid: *";
    start(stub("stubborn"));
    std::vector<FileDescriptor> clients;
    std::vector<uint32_t> pids;
    for (uint32_t session = 1; session <= 4; ++session) {
        clients.push_back(open(session, session));
        pids.push_back(shadowPid());
    }
    service.answer("proxySessionConnected", Answer::Held); // until then, all stay in the list
    allow(5, 5);
    clients.push_back(connectTo(port));
    EXPECT_TRUE(eventually([&] { return service.count("proxySessionConnected 5 *") > 0; }));
    for (const uint32_t session : {1U, 2U}) { // two that are disconnected, and two that leave
        service->signalSessionDisconnected(session, pids[session - 1], "");
        clients[session + 1].reset();
    }
    service->signalProxyListenTimeout(1);
    for (const char* message :
         {"*: set timeout: 1", "*job stopped, session id: 3, *", "*job stopped, session id: 4, *"})
        EXPECT_TRUE(journal.saw({message}));
    service.answer("proxySessionConnected", Answer::Reply);
    ASSERT_TRUE(journal.saw({told, told, killed, killed, told, told, killed,
                             task + "child ended, pid: *, killed by signal: 9", killed},
                            12s))
        << "the graces run at once";
    for (uint32_t session = 1; session <= 3; ++session)
        clients.push_back(open(session, session));
    kill(static_cast<pid_t>(shadowPid()), SIGSTOP);
    daemon.process->signal(SIGTERM);
    EXPECT_EQ(daemon.process->wait(9s), 0) << "the graces run at once";
}

TEST_F(ShadowFault, OneThatEndsByItselfIsNotSignalled) {
    start(stub("exit"));
    const std::string before = daemon.resources();
    allow();
    const FileDescriptor client = connectTo(port);
    EXPECT_TRUE(journal.saw({"asyncWaitPid: added task, pid: *"}));
    const pid_t number = journal.number("asyncWaitPid: added task, *");
    const pid_t successor = hasAllAccounts() ? startWithNumber(number) : 0; // needs root
    EXPECT_TRUE(ends(client));
    EXPECT_TRUE(journal.saw({"actionCreateTransport: child ended, pid: *, exit code: 3"}));
    if (successor > 0) {
        int status = 0;
        kill(successor, SIGKILL);
        waitpid(successor, &status, 0);
        EXPECT_EQ(WTERMSIG(status), SIGKILL) << "it was signalled under its number";
    }
    stop();
    start(stub("bound"));
    allow();
    const FileDescriptor next = connectTo(port);
    EXPECT_TRUE(journal.saw({"unixConnect: connect failed, *", "*: transport not started, *",
                             "actionCreateTransport: child ended, pid: *, exit code: 4"},
                            4s))
        << "before the time for its socket is over";
    stop();
    start(stub("hangup"));
    EXPECT_TRUE(ends(open()));
    EXPECT_TRUE(journal.saw({"JobTransferStopped: child ended, pid: *, exit code: 4"}));
    EXPECT_EQ(journal.count("JobTransferStopped: kill transport, *"), 0u);
    EXPECT_TRUE(holds(before));
}

TEST_F(ShadowFault, OneThatDoesNotAcceptDoesNotKeepTheDaemonFromStopping) {
    for (const char* mode : {"refuse", "full"}) {
        start(stub(mode));
        allow();
        const FileDescriptor client = connectTo(port);
        EXPECT_TRUE(journal.saw({"unixConnect: path: *"}));
        daemon.process->signal(SIGTERM);
        EXPECT_EQ(daemon.process->wait(4s), 0) << mode;
        EXPECT_TRUE(ends(client));
        EXPECT_TRUE(journal.saw({"unixConnect: connect failed, *", "*: transport not started, *",
                                 "*: child ended, *"}));
        EXPECT_EQ(journal.count("*: transport does not end, *"), 0u) << "it is told to";
    }
}

TEST_F(ShadowFault, AConnectThatSucceedsLateLeavesNoErrorLine) {
    start(stub("crowded"));
    ASSERT_TRUE(echoes(open(6))) << "though the listener's queue is full for a second";
    stop();
    start(stub("late"));
    ASSERT_TRUE(echoes(open(7))) << "though nobody listens on the socket for a second";
    allow(8);
    const FileDescriptor client = connectTo(port);
    EXPECT_TRUE(journal.saw({"unixConnect: path: *", "unixConnect: path: *"}));
    rlimit before{};
    prlimit(daemon.process->pid(), RLIMIT_NOFILE, nullptr, &before);
    const rlimit few{3, before.rlim_max};
    ASSERT_EQ(prlimit(daemon.process->pid(), RLIMIT_NOFILE, &few, nullptr), 0);
    EXPECT_FALSE(journal.saw({"*: transport not started, *"}, 1500ms));
    ASSERT_EQ(prlimit(daemon.process->pid(), RLIMIT_NOFILE, &before, nullptr), 0);
    EXPECT_TRUE(echoes(client)) << "though there were no descriptors for a while";
    EXPECT_EQ(journal.count("*failed*"), 0u);
}

} // namespace VorlTest

#include "common/run_state.h"
#include "fixtures/client.h"
#include "fixtures/journal.h"
#include "fixtures/sandbox.h"
#include "logger"
#include "proxy/relay/job_list.h"
#include "proxy/relay/relay_step.h"
#include "proxy/relay/relay_wait.h"

#include <csignal>
#include <fstream>
#include <future>

#include <fcntl.h>
#include <linux/socket.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>

namespace VorlTest {

using Vorl::JobTransfer;
using Vorl::TransportHandle;

// A relay job in this process, between a client and the end of a shadow server that has exited.
class RelayJob : public testing::Test {
protected:
    void SetUp() override {
        Vorl::Syslog::setDebugLevel(Vorl::DebugLevel::Debug);
        Vorl::startRunning();
        connectPair();
    }

    void connectPair() {
        auto [connected, accepted] = tcpPair();
        client = std::move(connected);
        socketFd = accepted.release();
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        unixFd = pair[0];
        shadow = FileDescriptor(pair[1]);
    }

    static TransportHandle exited() {
        std::promise<int> status;
        status.set_value(0);
        return {0, status.get_future()};
    }

    void startJob() {
        job = std::make_unique<JobTransfer>(socketFd, unixFd, Vorl::SocketFile(""),
                                            Vorl::OwnedFile(""), exited(), 7);
    }

    // Sends until nothing moves any more.
    static void flood(const FileDescriptor& fd) {
        const std::string piece(1 << 16, 'x');
        for (int still = 0; still < 20; std::this_thread::sleep_for(10ms))
            still = send(fd.get(), piece.data(), piece.size(), MSG_NOSIGNAL | MSG_DONTWAIT) > 0
                        ? 0
                        : still + 1;
    }

    static bool arrives(const FileDescriptor& from, const FileDescriptor& to,
                        std::chrono::milliseconds limit = patience) {
        char byte = 0;
        send(from.get(), "k", 1, MSG_NOSIGNAL | MSG_DONTWAIT);
        return eventually([&] { return recv(to.get(), &byte, 1, MSG_DONTWAIT) == 1; }, limit);
    }

    static int option(int fd, int level, int name) {
        int value = -1;
        socklen_t size = sizeof(value);
        getsockopt(fd, level, name, &value, &size);
        return value;
    }

    Journal journal;
    FileDescriptor client, shadow; // the far ends
    int socketFd = -1, unixFd = -1;
    std::unique_ptr<JobTransfer> job;
};

TEST_F(RelayJob, AKeystrokeNeverWaitsBehindAFullPicture) {
    startJob();
    flood(shadow);
    for (int i = 0; i < 2; ++i) // the picture is there when the relay looks again
        ASSERT_TRUE(arrives(client, shadow));
    job.reset();
    connectPair();
    startJob();
    flood(client);
    for (int i = 0; i < 2; ++i)
        ASSERT_TRUE(arrives(shadow, client)) << "a picture waits behind an upload";
}

TEST_F(RelayJob, SeesAnEndWhileTheOtherSideTakesNothing) {
    for (const bool ofClient : {true, false}) {
        connectPair();
        startJob();
        FileDescriptor& from = ofClient ? client : shadow;
        const std::string piece(512, 'x');
        const auto isFull = [&] { // no room, and something that waits for it
            send(from.get(), piece.data(), piece.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            pollfd room{ofClient ? unixFd : socketFd, POLLOUT, 0};
            return poll(&room, 1, 0) == 0;
        };
        while (!isFull()) {
        }
        from.reset();
        ASSERT_TRUE(eventually([&] { return !job->isRunning(); })) << ofClient;
        EXPECT_TRUE(journal.saw({"JobTransfer: job stopped, session id: 7, result: recv end *"}));
        journal.forget();
        job.reset();
    }
}

TEST_F(RelayJob, SeesAnEndBesideTrafficTheOtherWay) {
    const FileDescriptor accepted(socketFd), local(unixFd);
    const std::string piece(1 << 16, 'x');
    while (send(unixFd, piece.data(), piece.size(), MSG_DONTWAIT) > 0) { // no room for an upload
    }
    send(shadow.get(), "p", 1, 0);
    send(client.get(), "k", 1, 0);
    shutdown(client.get(), SHUT_WR);
    EXPECT_TRUE(eventually([&] { return Vorl::waitForTraffic(socketFd, unixFd).fromClient; }));
}

TEST_F(RelayJob, EndsWhileItsSendIsBlocked) {
    for (const std::string how : {"stop", "drop", "stop the upload"}) {
        connectPair();
        startJob();
        const bool upload = how == "stop the upload";
        const FileDescriptor &from = upload ? client : shadow, &to = upload ? shadow : client;
        const int small = 4096; // less than what the job receives at once
        setsockopt(upload ? unixFd : socketFd, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
        const auto isBlocked = [&] {
            flood(from);
            return !arrives(to, from, 300ms);
        };
        char taken[10'000];
        while (!isBlocked()) // its last send ended just as the room did
            ASSERT_GT(recv(to.get(), taken, sizeof(taken), 0), 0) << how;
        if (how == "drop") {
            job->dropClient();
            EXPECT_TRUE(eventually([&] { return !job->isRunning(); }));
        }
        const auto gone = std::async(std::launch::async, [&] { job.reset(); });
        EXPECT_EQ(gone.wait_for(5s), std::future_status::ready) << how;
        client.reset(); // releases a send that would hold up the test
        shadow.reset();
        const std::string result = how == "drop" ? "send error" : "unknown";
        EXPECT_TRUE(journal.saw({"JobTransfer: job stopped, *, result: " + result})) << how;
        EXPECT_EQ(journal.count("*send failed*"), how == "drop" ? 1u : 0u) << how;
        journal.forget();
    }
}

TEST_F(RelayJob, EndsAtOnceWithTheDaemon) {
    startJob();
    EXPECT_TRUE(Vorl::requestStop());
    EXPECT_TRUE(ends(client)) << "without waiting for the job to be destroyed";
    EXPECT_TRUE(journal.saw({"JobTransfer: job stopped, session id: 7, result: unknown"}));
    EXPECT_FALSE(Vorl::requestStop());
}

TEST_F(RelayJob, DropsItsClientWithoutADescriptorAsWell) {
    startJob();
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{0, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    job->dropClient();
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_TRUE(ends(client));
}

TEST_F(RelayJob, BoundsItsBuffers) {
    if (!hasAllAccounts())
        GTEST_SKIP() << "needs root, to exceed the machine's limits";
    startJob();
    EXPECT_EQ(option(socketFd, SOL_SOCKET, SO_RCVBUF), 1 << 20);
    EXPECT_EQ(option(socketFd, SOL_SOCKET, SO_SNDBUF), 768 << 10);
    EXPECT_EQ(option(unixFd, SOL_SOCKET, SO_SNDBUF), 1536 << 10);
    EXPECT_EQ(option(socketFd, SOL_SOCKET, SO_BUF_LOCK), SOCK_RCVBUF_LOCK);
    job.reset();
    connectPair();
    const int before = option(unixFd, SOL_SOCKET, SO_SNDBUF);
    std::thread([this] { // without privileges: the kernel keeps accounts by thread
        syscall(SYS_setresuid, 65534, 65534, 65534);
        startJob();
    })
        .join();
    EXPECT_GT(option(unixFd, SOL_SOCKET, SO_SNDBUF), before) << "as far as the limits allow";
}

TEST_F(RelayJob, EndsByAnExceptionWhereTheInputCannotBeCounted) {
    close(socketFd);
    socketFd = open("/dev/zero", O_RDWR | O_CLOEXEC);
    startJob();
    EXPECT_TRUE(eventually([&] { return !job->isRunning(); }));
    job.reset();
    EXPECT_TRUE(journal.saw({"hasData: ioctl failed, error: *, code: 25",
                             "JobTransfer: job stopped, session id: 7, result: exception"}));
    EXPECT_EQ(journal.count("JobTransferStopped: kill transport, *"), 0u);
}

TEST_F(RelayJob, AStepSendsEveryByteOnceWhateverInterruptsIt) {
    struct sigaction interrupting {};
    interrupting.sa_handler = [](int) {};
    sigaction(SIGALRM, &interrupting, nullptr);
    sigset_t alarms;
    sigemptyset(&alarms);
    sigaddset(&alarms, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &alarms, nullptr);
    std::string sent(150'000, ' '), back(sent.size(), ' ');
    for (size_t at = 0; at < sent.size(); ++at)
        sent[at] = static_cast<char>(at * at % 251);
    for (const bool blocking : {true, false}) {
        connectPair();
        const int small = 4096;
        setsockopt(socketFd, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
        fcntl(socketFd, F_SETFL, blocking ? 0 : O_NONBLOCK);
        EXPECT_EQ(send(shadow.get(), sent.data(), sent.size(), 0), ssize_t(sent.size()));
        std::jthread reader([&] {
            for (size_t at = 0; at < back.size(); at += 1000) {
                if (recv(client.get(), &back[at], 1000, MSG_WAITALL) <= 0)
                    break;
                std::this_thread::sleep_for(100us);
            }
        });
        const itimerval often{{0, 1000}, {0, 1000}}, never{};
        std::vector<uint8_t> buffer;
        setitimer(ITIMER_REAL, &often, nullptr);
        pthread_sigmask(SIG_UNBLOCK, &alarms, nullptr);
        EXPECT_EQ(Vorl::jobTransferIter(unixFd, socketFd, buffer), ssize_t(sent.size()));
        pthread_sigmask(SIG_BLOCK, &alarms, nullptr);
        setitimer(ITIMER_REAL, &never, nullptr);
        EXPECT_EQ(Vorl::jobTransferIter(unixFd, socketFd, buffer), 0) << "nothing is left";
        shutdown(socketFd, SHUT_WR); // the reader waits for no more
        reader.join();
        EXPECT_TRUE(sent == back) << blocking;
        close(socketFd);
        close(unixFd);
    }
    signal(SIGALRM, SIG_IGN); // one may be pending
    pthread_sigmask(SIG_UNBLOCK, &alarms, nullptr);
    signal(SIGALRM, SIG_DFL);
}

TEST_F(RelayJob, TheListIsLockedWhileTheServiceIsAsked) {
    Vorl::JobList jobs;
    FileDescriptor accepted(socketFd), local(unixFd);
    Vorl::SocketFile socketFile("");
    Vorl::OwnedFile samFile("");
    TransportHandle transport = exited();
    std::future<size_t> count;
    jobs.add(accepted, local, socketFile, samFile, transport, 7, [&](const JobTransfer&) {
        std::async(std::launch::async, [&] {
            EXPECT_FALSE(jobs.sweep());
            jobs.disconnect(7, 0); // neither waits
        }).get();
        count = std::async(std::launch::async, [&] { return jobs.count(7); });
        EXPECT_EQ(count.wait_for(200ms), std::future_status::timeout);
    });
    EXPECT_EQ(count.get(), 1u);
    const auto disconnect = [&] { // from two threads at once, beside the sweep
        for (uint32_t session = 0; session < 20'000; ++session)
            jobs.disconnect(session, 1);
    };
    {
        const std::jthread first(disconnect), second(disconnect);
        EXPECT_EQ(jobs.sweep().value_or(0), 0u) << "carries out what was noted meanwhile";
    }
    EXPECT_TRUE(ends(client));
}

TEST(SocketFile, IsRemovedByTheLastThatHasItFromAnyThread) {
    const std::string path = makeDirectory() / "socket";
    const auto hold = [] {
        for (int i = 0; i < 20'000; ++i)
            Vorl::SocketFile("held by nobody else" + std::to_string(i % 7)).remove();
    };
    { const std::jthread first(hold), second(hold); }
    std::ofstream(path) << "";
    Vorl::SocketFile earlier(path);
    {
        const Vorl::SocketFile moved(std::move(earlier)), later(path);
        moved.remove();
        EXPECT_TRUE(std::filesystem::exists(path));
    }
    Vorl::SocketFile(path).remove();
    EXPECT_FALSE(std::filesystem::exists(path));
}

} // namespace VorlTest

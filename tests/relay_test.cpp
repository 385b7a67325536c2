#include "common/run_state.h"
#include "fixtures/daemon_test.h"
#include "logger"
#include "proxy/relay/job_transfer.h"
#include "proxy/relay/relay_step.h"

#include <random>

namespace VorlTest {

class Relay : public DaemonTest {
protected:
    // A session with a stub that behaves so ends with that text after `finish`.
    template<typename Finish>
    void expectEnd(const std::string& mode, const std::string& text, Finish finish) {
        start(stub(mode));
        FileDescriptor client = open();
        finish(client);
        EXPECT_TRUE(journal.saw({"JobTransfer: job stopped, session id: 7, result: " + text,
                                 "JobTransferStopped: child ended, pid: *"}));
        EXPECT_TRUE(!client || ends(client));
        stop();
    }
};

TEST_F(Relay, CarriesEveryByteBothWaysAtOnce) {
    start();
    const FileDescriptor client = open();
    std::string sent, back;
    sent.resize(100'000'000);
    back.resize(sent.size());
    std::mt19937_64 random(7);
    std::ranges::generate(sent, [&] { return static_cast<char>(random()); });
    std::jthread writer([&] {
        for (size_t at = 0, size; at < sent.size(); at += size) {
            size = std::min(random() % 99'991 + 1, sent.size() - at);
            ASSERT_EQ(send(client.get(), sent.data() + at, size, MSG_NOSIGNAL), size);
        }
    });
    EXPECT_EQ(recv(client.get(), back.data(), back.size(), MSG_WAITALL), back.size());
    EXPECT_TRUE(sent == back);
}

TEST_F(Relay, TellsHowItEnded) {
    expectEnd("echo", "recv end stream", [](FileDescriptor& client) { client.reset(); });
    expectEnd("hangup", "recv end stream", [](FileDescriptor&) {});
    expectEnd("echo", "recv error", [](FileDescriptor& client) {
        const linger reset{1, 0};
        setsockopt(client.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
        client.reset();
    });
    EXPECT_TRUE(journal.saw({"jobTransferIter: recv failed, error: *, code: 104"}));
    expectEnd("deaf", "send error", [](FileDescriptor& client) { send(client.get(), "x", 1, 0); });
    EXPECT_TRUE(journal.saw({"jobTransferIter: send failed, error: Broken pipe, code: 32"}));
    expectEnd("slow", "unknown", [this](FileDescriptor& client) {
        service->signalSessionDisconnected(8, shadowPid(), "");
        service->signalSessionDisconnected(7, shadowPid() + 1, "");
        EXPECT_TRUE(journal.saw({"signalSessionDisconnected: session id: 7, *"}));
        EXPECT_TRUE(echoes(client)) << "other processes' signals";
        service->signalSessionDisconnected(7, shadowPid(), "");
    });
    EXPECT_TRUE(journal.saw({"JobTransferStopped: kill transport, pid: *"}));
}

TEST(RelayJob, EndsByAnExceptionWhereTheInputCannotBeCounted) {
    Journal journal;
    Vorl::proxyRunning = true;
    Vorl::Syslog::setDebugLevel(Vorl::DebugLevel::Debug);
    std::promise<int> ended;
    ended.set_value(0);
    const int unixFd = socket(AF_UNIX, SOCK_STREAM, 0);
    {
        const Vorl::JobTransfer job(open("/dev/zero", O_RDWR), unixFd, "/run/socket", "/run/sam",
                                    {0, ended.get_future()}, 7);
        EXPECT_TRUE(eventually([&] { return !job.isRunning(); }));
    }
    EXPECT_TRUE(journal.saw({"hasData: ioctl failed, error: *, code: 25",
                             "JobTransfer: job stopped, session id: 7, result: exception"}));
    EXPECT_EQ(journal.count("JobTransferStopped: kill transport, *"), 0u);
}

TEST_F(Relay, NothingStaysOfTwoHundredConnectionsAndOfEightAtOnce) {
    start();
    EXPECT_TRUE(echoes(open())); // so that what is allocated once is there
    EXPECT_TRUE(journal.saw({"PeriodicTask: remove job, *"}));
    const std::string before = idle();
    for (uint32_t session = 1; session <= 200; ++session)
        ASSERT_TRUE(echoes(open(session, session))) << session;
    EXPECT_TRUE(holds(before));
    std::vector<FileDescriptor> clients;
    for (uint32_t session = 1; session <= 8; ++session)
        clients.push_back(open(session, session));
    for (const FileDescriptor& client : clients)
        EXPECT_TRUE(
            echoes(client, std::string(100'000, static_cast<char>('a' + client.get() % 26))));
    clients.clear();
    EXPECT_TRUE(holds(before));
    EXPECT_TRUE(before.ends_with(", children: , files: ")) << before;
}

} // namespace VorlTest

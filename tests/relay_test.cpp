#include "fixtures/stage.h"
#include "logger"
#include "proxy/globals.h"
#include "proxy/job_transfer.h"
#include "proxy/relay_step.h"

#include <fcntl.h>
#include <random>

namespace VorlTest {

class Relay : public Stage {
protected:
    // Opens a session with a stub that behaves so, which ends with that text after `finish`.
    template<typename Finish>
    void expectEnd(const std::string& mode, const std::string& text, Finish finish) {
        start(stub(mode));
        Fd client = open();
        finish(client);
        EXPECT_TRUE(journal.saw({"JobTransfer: job stopped, session id: 7, result: " + text,
                                 "PeriodicTask: remove job, session id: 7"}));
        EXPECT_TRUE(eventually([&] { return daemon.children().empty(); }));
        EXPECT_TRUE(client < 0 || ends(client));
        stop();
    }
};

TEST_F(Relay, CarriesEveryByteBothWaysAtOnce) {
    constexpr size_t total = 100'000'000;
    start();
    const Fd client = open();
    std::string sent(total, '\0');
    std::mt19937_64 random(7);
    for (size_t at = 0; at + sizeof(uint64_t) <= total; at += sizeof(uint64_t)) {
        const uint64_t word = random();
        sent.replace(at, sizeof(word), reinterpret_cast<const char*>(&word), sizeof(word));
    }
    std::jthread writer([&] {
        for (size_t at = 0; at < total;) {
            const ssize_t size =
                send(client, sent.data() + at, std::min<size_t>(random() % 99'991 + 1, total - at),
                     MSG_NOSIGNAL);
            ASSERT_GT(size, 0);
            at += static_cast<size_t>(size);
        }
    });
    std::string back(total, '\0');
    for (size_t at = 0; at < total;) {
        const ssize_t size = recv(client, back.data() + at, total - at, 0);
        ASSERT_GT(size, 0);
        at += static_cast<size_t>(size);
    }
    writer.join();
    EXPECT_TRUE(sent == back);
}

TEST_F(Relay, TellsHowItEnded) {
    expectEnd("echo", "recv end stream", [](Fd& client) { client = Fd(); });
    expectEnd("hangup", "recv end stream", [](Fd&) {});
    expectEnd("echo", "recv error", [](Fd& client) {
        const linger reset{1, 0};
        setsockopt(client, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
        client = Fd();
    });
    EXPECT_TRUE(journal.saw({"jobTransferIter: recv failed, error: *, code: 104"}));
    expectEnd("deaf", "send error", [](Fd& client) { send(client, "x", 1, 0); });
    EXPECT_TRUE(journal.saw({"jobTransferIter: send failed, error: Broken pipe, code: 32"}));
}

TEST(RelayJob, EndsByAnExceptionWhereTheInputCannotBeCounted) {
    Journal journal;
    Vorl::proxyRunning = true;
    Vorl::Syslog::setDebugLevel(Vorl::DebugLevel::Debug);
    std::promise<int> ended;
    ended.set_value(0);
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    {
        const Vorl::JobTransfer job(open("/dev/zero", O_RDWR), pair[0], "/run/socket", "/run/sam",
                                    {0, ended.get_future()}, 7);
        EXPECT_TRUE(eventually([&] { return !job.isRunning(); }));
    }
    EXPECT_TRUE(journal.saw({"hasData: ioctl failed, error: *, code: 25",
                             "JobTransfer: job stopped, session id: 7, result: exception"}));
    EXPECT_EQ(journal.count("JobTransferStopped: kill transport, *"), 0u);
    std::vector<uint8_t> buffer;
    EXPECT_EQ(Vorl::jobTransferIter(pair[1], pair[1], buffer), Vorl::relayRecvEndStream);
    close(pair[1]);
}

} // namespace VorlTest

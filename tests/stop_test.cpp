#include "fixtures/stage.h"

namespace VorlTest {

class Stop : public Stage {
protected:
    // Stops the daemon in every way that there is, each time in a new one that `prepare` has
    // brought to a stage, and expects these messages and nothing left behind.
    template<typename Prepare>
    void expectStop(const std::string& mode, Prepare prepare,
                    const std::vector<std::string>& messages) {
        for (const int number : {SIGTERM, SIGINT, 0}) {
            start(stub(mode));
            [[maybe_unused]] const auto held = prepare();
            std::istringstream children(daemon.children());
            number == 0 ? service->signalVorlStopped() : daemon.process->signal(number);
            EXPECT_EQ(daemon.process->wait(5s), 0);
            EXPECT_TRUE(journal.saw(messages));
            EXPECT_EQ(journal.count("signalVorlStopped, pid: *"), number == 0 ? 1u : 0u);
            for (pid_t pid = 0; children >> pid;)
                EXPECT_NE(kill(pid, 0), 0) << "a shadow server";
        }
    }
};

TEST_F(Stop, WhenIdleAndWhenListening) {
    expectStop("echo", [] { return 0; }, {});
    expectStop("echo", [this] { return allow(), 0; }, {});
    EXPECT_EQ(journal.count("actionCreateTransport: exception: *"), 0u);
}

TEST_F(Stop, WhenTheShadowServerStarts) {
    const auto prepare = [this] {
        allow();
        Fd client = connectTo(port);
        shadow();
        return client;
    };
    expectStop("never", prepare,
               {"actionCreateTransport: exception: proxy stopped, session id: 7"});
}

TEST_F(Stop, WhenRelaying) {
    expectStop("slow", [this] { return std::pair(open(7), open(8)); },
               {"JobTransfer: job stopped, session id: ?, result: unknown",
                "JobTransferStopped: kill transport, pid: *"});
    EXPECT_FALSE(std::filesystem::exists(daemon.workDirectory / "sam_3_0"));
    EXPECT_FALSE(std::filesystem::exists(daemon.workDirectory / "proxy_7_0"));
}

} // namespace VorlTest

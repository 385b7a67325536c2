#include "fixtures/daemon_test.h"

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

    // A number for a longer run; scripts/soak sets it.
    static long wanted(const std::string& name, long otherwise) {
        const char* const text = std::getenv(("VORL_SOAK_" + name).c_str());
        return text ? std::atol(text) : otherwise;
    }

    // Resident memory in kilobytes; nothing where a sanitizer keeps what was freed.
    long memory() const {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        return 0;
#endif
        const std::string status =
            readFile("/proc/" + std::to_string(daemon.process->pid()) + "/status");
        return std::stol(status.substr(status.find("VmRSS:") + 6));
    }

    // Opens and closes as many connections, and expects no growth after the first tenth.
    template<typename Use> void expectNoGrowth(long otherwise, Use use) {
        const auto connections = static_cast<uint32_t>(wanted("CONNECTIONS", otherwise));
        std::string before;
        long memoryBefore = 0;
        for (uint32_t i = 1; i <= connections; ++i) {
            ASSERT_TRUE(use(open(7, i), i)) << i;
            if (i != connections / 10 && i != connections)
                continue;
            const std::string now = idle();
            std::cout << i << " connections: " << now << ", kB: " << memory() << std::endl;
            if (before.empty()) {
                before = now;
                memoryBefore = memory();
            }
        }
        EXPECT_TRUE(holds(before));
        EXPECT_LT(memory(), memoryBefore + 2000);
    }
};

TEST_F(Relay, CarriesEveryByteBothWaysAtOnce) {
    start();
    const FileDescriptor client = open();
    std::string sent, back;
    sent.resize(30'000'000);
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
    expectEnd("deaf", "send error", [](FileDescriptor& client) {
        // The first bytes may arrive before it is deaf.
        EXPECT_TRUE(eventually([&] { return send(client.get(), "x", 1, MSG_NOSIGNAL) != 1; }));
    });
    EXPECT_TRUE(journal.saw({"jobTransferIter: send failed, error: Broken pipe, code: 32"}));
    expectEnd("slow", "unknown", [this](FileDescriptor& client) {
        service->signalSessionDisconnected(8, shadowPid(), "");
        service->signalSessionDisconnected(7, shadowPid() + 1, "");
        EXPECT_TRUE(journal.saw({"signalSessionDisconnected: session id: 7, *"}));
        EXPECT_TRUE(echoes(client)) << "other processes' signals";
        service->signalSessionDisconnected(7, shadowPid(), "");
    });
    EXPECT_TRUE(journal.saw({"JobTransferStopped: kill transport, pid: *",
                             "JobTransferStopped: child ended, pid: *, killed by signal: 14"}))
        << "it was not given the time to end";
}

TEST_F(Relay, NothingStaysOfManyConnections) {
    start(R"("debug:level": "none")");
    expectNoGrowth(200, [](const FileDescriptor& client, uint32_t connection) {
        return connection % 4 == 0 || echoes(client); // some connect and leave
    });
}

TEST_F(Relay, EightBusyOnesGrowNothing) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(wanted("MINUTES", 0));
    start(R"("debug:level": "none")");
    EXPECT_TRUE(echoes(open())); // so that what is allocated once is there
    const std::string idleBefore = idle();
    std::vector<FileDescriptor> clients;
    for (uint32_t session = 1; session <= 8; ++session)
        clients.push_back(open(session, session));
    std::string before;
    long memoryBefore = 0;
    for (uint64_t frames = 0; frames < 100 || std::chrono::steady_clock::now() < end; ++frames) {
        for (const FileDescriptor& client : clients)
            ASSERT_TRUE(echoes(client, std::string(40'000, static_cast<char>('a' + frames % 26))));
        if (frames == 50) {
            before = daemon.resources();
            memoryBefore = memory();
        }
        std::this_thread::sleep_for(1ms);
    }
    std::cout << "ends with " << daemon.resources() << ", kB: " << memory() << std::endl;
    EXPECT_TRUE(holds(before));
    EXPECT_LT(memory(), memoryBefore + 2000);
    clients.clear();
    EXPECT_TRUE(holds(idleBefore));
}

TEST_F(Relay, DISABLED_NothingStaysWithTheRealShadowServer) { // run by scripts/soak
    const Process display({"/usr/bin/Xvfb", ":95", "-ac", "-noreset", "-nolisten", "tcp"}, {},
                          makeDirectory());
    describe(R"("display": 95, "sec:nla": false, "sec:tls": true, "sec:auth": false, "ntlm": "")");
    const char* program = std::getenv("VORL_SHADOW_SERVER"); // set by scripts/soak
    ASSERT_NE(program, nullptr);
    start(R"("debug:level": "none", "x11rdp:args": ["-auth", "/ipc-socket:%{socket}"],
             "x11rdp:path": ")" +
          std::string(program) + '"');
    expectNoGrowth(100, [](const FileDescriptor& client, uint32_t) {
        // A connection request that asks for TLS, and the start of its confirmation.
        const std::string request("\x03\0\0\x13\x0e\xe0\0\0\0\0\0\x01\0\x08\0\x01\0\0\0", 19);
        char answer[2]{};
        return send(client.get(), request.data(), request.size(), MSG_NOSIGNAL) == 19 &&
               recv(client.get(), answer, 2, MSG_WAITALL) == 2 && answer[0] == 3;
    });
}

} // namespace VorlTest

#include "fixtures/daemon_test.h"

namespace VorlTest {

// Too long for every day: scripts/soak runs them.
class Soak : public DaemonTest {
protected:
    // Resident memory in kilobytes.
    long memory() const {
        const std::string status =
            readFile("/proc/" + std::to_string(daemon.process->pid()) + "/status");
        return std::stol(status.substr(status.find("VmRSS:") + 6));
    }

    // Opens and closes as many connections, and expects no growth after the first tenth.
    template<typename Use> void expectNoGrowth(uint32_t connections, Use use) {
        std::string before;
        long memoryBefore = 0;
        for (uint32_t i = 1; i <= connections; ++i) {
            ASSERT_TRUE(use(open(7, i))) << i;
            if (i != connections / 10 && i != connections)
                continue;
            ASSERT_TRUE(eventually([&] { return daemon.children().empty(); }));
            std::cout << i << " connections: " << daemon.resources() << ", kB: " << memory()
                      << '\n';
            if (before.empty()) {
                before = daemon.resources();
                memoryBefore = memory();
            }
        }
        EXPECT_TRUE(holds(before));
        EXPECT_LT(memory(), memoryBefore + 2000);
        journal.forget();
    }
};

TEST_F(Soak, DISABLED_AThousandConnectionsWithAStub) {
    start(R"("debug:level": "none")");
    expectNoGrowth(1000, [](const FileDescriptor& client) { return echoes(client); });
    expectNoGrowth(1000, [](const FileDescriptor&) { return true; }); // connects and leaves
}

TEST_F(Soak, DISABLED_AHundredWithTheRealShadowServer) {
    const Process display({"/usr/bin/Xvfb", ":95", "-ac", "-noreset", "-nolisten", "tcp"}, {},
                          makeDirectory());
    describe(R"("display": 95, "sec:nla": false, "sec:tls": true, "sec:auth": false, "ntlm": "")");
    start(R"("debug:level": "none", "x11rdp:path": "/usr/bin/freerdp-shadow-cli",
             "x11rdp:args": ["-auth", "/ipc-socket:%{socket}"])");
    expectNoGrowth(100, [](const FileDescriptor& client) {
        // A connection request that asks for TLS, and the start of its confirmation.
        const std::string request("\x03\0\0\x13\x0e\xe0\0\0\0\0\0\x01\0\x08\0\x01\0\0\0", 19);
        char answer[2]{};
        return send(client.get(), request.data(), request.size(), MSG_NOSIGNAL) == 19 &&
               recv(client.get(), answer, 2, MSG_WAITALL) == 2 && answer[0] == 3;
    });
}

TEST_F(Soak, DISABLED_EightBusyRelays) {
    const char* const wanted = std::getenv("VORL_SOAK_MINUTES");
    ASSERT_NE(wanted, nullptr) << "is set by scripts/soak";
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(std::atoi(wanted));
    start(R"("debug:level": "none")");
    std::vector<FileDescriptor> clients;
    for (uint32_t session = 1; session <= 8; ++session)
        clients.push_back(open(session, session));
    const std::string frame(40'000, 'f');
    std::string before;
    long memoryBefore = 0;
    for (uint64_t frames = 0; std::chrono::steady_clock::now() < end; ++frames) {
        for (const FileDescriptor& client : clients)
            ASSERT_TRUE(echoes(client, frame)) << frames;
        if (frames == 1000) {
            before = daemon.resources();
            memoryBefore = memory();
            std::cout << "begins with " << before << ", kB: " << memoryBefore << std::endl;
        }
        std::this_thread::sleep_for(1ms);
    }
    std::cout << "ends with " << daemon.resources() << ", kB: " << memory() << std::endl;
    EXPECT_TRUE(holds(before));
    EXPECT_LT(memory(), memoryBefore + 2000);
}

} // namespace VorlTest

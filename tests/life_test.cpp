#include "fixtures/daemon_test.h"

#include <sys/time.h>

namespace VorlTest {

class Life : public DaemonTest {
protected:
    // Stops a daemon in every way, each time a new one that `prepare` has brought to a stage.
    template<typename Prepare>
    void expectStop(const std::string& mode, Prepare prepare,
                    const std::vector<std::string>& messages) {
        for (const int number : {SIGTERM, SIGINT, 0}) {
            start(stub(mode));
            const std::vector<FileDescriptor> clients = prepare();
            std::istringstream children(daemon.children());
            number == 0 ? service->signalVorlStopped() : daemon.process->signal(number);
            EXPECT_EQ(daemon.process->wait(), 0);
            for (const std::string& message : messages)
                EXPECT_TRUE(journal.saw({message}));
            for (pid_t pid = 0; children >> pid;)
                EXPECT_NE(kill(pid, 0), 0) << "a shadow server";
            for (const FileDescriptor& client : clients)
                EXPECT_TRUE(ends(client));
        }
    }

    // Sets the configuration's modification time to another whole second each time.
    void touch() {
        const timeval times[] = {{++seconds, 0}, {seconds, 0}};
        utimes(daemon.configuration.c_str(), times);
    }

    time_t seconds = 1000;
};

TEST_F(Life, StopsAtEveryStage) {
    std::vector<FileDescriptor> clients;
    expectStop("echo", [] { return std::vector<FileDescriptor>(); }, {});
    expectStop("echo", [this] { return allow(), std::vector<FileDescriptor>(); }, {});
    EXPECT_EQ(journal.count("actionCreateTransport: exception: *"), 0u);
    const auto launching = [this] {
        std::vector<FileDescriptor> waiting;
        allow();
        waiting.push_back(connectTo(port));
        EXPECT_TRUE(journal.saw({"asyncWaitPid: added task, *"}));
        return waiting;
    };
    expectStop("never", launching,
               {"actionCreateTransport: exception: proxy stopped, session id: 7"});
    const auto relaying = [this] {
        std::vector<FileDescriptor> open;
        open.push_back(DaemonTest::open(7));
        open.push_back(DaemonTest::open(8));
        return open;
    };
    expectStop("slow", relaying, // by its shadow server's end, a relay ends otherwise
               {"JobTransfer: job stopped, session id: ?, result: unknown",
                "JobTransferStopped: kill transport, pid: *"});
    for (const char* file : {"sam_3_0", "proxy_7_0", "proxy_8_0"})
        EXPECT_FALSE(exists(daemon.workDirectory / file)) << file;
}

TEST_F(Life, AChangedConfigurationIsInForceAtTheNextUse) {
    const std::string file = daemon.configuration;
    const auto begin = std::chrono::steady_clock::now();
    start();
    configure(R"("listen:addr": "127.0.0.1", "debug:level": "trace")");
    EXPECT_TRUE(eventually([&] { // nothing tells of the first look
        touch();
        return bool(journal.saw({"reloadConfigWatcher: success"}, 500ms));
    }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 6s) << "the first look only learns";
    EXPECT_TRUE(journal.saw({"readJson: file: " + file, "setDebugLevel: level: trace"}));
    const auto change = [&](const std::string& text, const std::vector<std::string>& messages) {
        std::ofstream(file) << text;
        touch();
        EXPECT_TRUE(journal.saw(messages));
    };
    const std::string notObject = "reloadConfigWatcher: json not object, file: " + file;
    change("[1]", {notObject});
    change("[1", {"readJson: parse failed, path: *", notObject});
    change(R"({"debug:level": []})", {"PeriodicTask: exception: *"});
    std::filesystem::remove(file);
    std::filesystem::create_directory(file);
    touch();
    EXPECT_TRUE(journal.saw({"readJson: parse failed, path: *", notObject}));
    std::filesystem::remove(file);
    const std::string failed = "reloadConfigWatcher: stat failed, error: *, code: 2";
    EXPECT_TRUE(journal.saw({failed, failed}));
    EXPECT_TRUE(echoes(open()));
    EXPECT_TRUE(journal.saw({"actionCreateTransport: address: 127.0.0.1, *"})) << "the last good";
    change(R"({"debug:level": "Debug"})",
           {"setDebugLevel: level: Debug", "setDebugLevel: unknown level: Debug"});
    journal.forget();
    configure(R"("debug:level": "none")");
    touch();
    EXPECT_TRUE(journal.saw({"setDebugLevel: level: none", "reloadConfigWatcher: success"}));
    journal.forget();
    EXPECT_TRUE(echoes(open()));
    for (Journal::Record& record : journal.records())
        EXPECT_LE(record["PRIORITY"], "5") << record["MESSAGE"];
}

} // namespace VorlTest

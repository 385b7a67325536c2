#include "fixtures/daemon_test.h"
#include "fixtures/service_manager.h"

#include <sys/time.h>

namespace VorlTest {

using Life = DaemonTest;

TEST_F(Life, AChangedConfigurationIsInForceAtTheNextUse) {
    const auto begin = std::chrono::steady_clock::now();
    time_t seconds = 1000;
    const auto touchUntil = [&](const std::string& message) { // nothing tells of the first look
        EXPECT_TRUE(eventually([&] {
            const timeval times[] = {{++seconds, 0}, {seconds, 0}};
            utimes(daemon.configuration.c_str(), times);
            return bool(journal.saw({message}, 500ms));
        }));
    };
    start();
    configure(R"("listen:addr": "127.0.0.1", "listen:timeout": 33)");
    touchUntil("reloadConfigWatcher: success");
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 6s) << "the first look only records";
    EXPECT_TRUE(echoes(open()));
    EXPECT_TRUE(journal.saw({"*: session id: 7, timeout: 33", "*: address: 127.0.0.1, *"}));
    configure(R"("listen:addr": "127.0.0.2", "debug:level": [])");
    touchUntil("PeriodicTask: exception: key `debug:level': *, configuration kept, check file: " +
               daemon.configuration.string());
    journal.forget();
    EXPECT_TRUE(echoes(open()));
    EXPECT_TRUE(journal.saw({"*: address: 127.0.0.1, *"}));
}

TEST_F(Life, TheServiceManagerIsToldOfIt) {
    ServiceManager manager;
    daemon.environment.push_back(manager.variable());
    service.answer("vorlTest", Answer::Held);
    configure();
    daemon.start();
    EXPECT_TRUE(eventually([&] { return service.count("vorlTest") == 1; }));
    EXPECT_EQ(manager.next(MSG_DONTWAIT), "") << "not before the service has answered";
    service.answer("vorlTest", Answer::Reply);
    ASSERT_EQ(manager.next(), "READY=1\nSTATUS=Relays: 0");
    allow();
    ASSERT_EQ(manager.next(), "STATUS=Relays: 0, admitting a client to session 7");
    FileDescriptor client = connectTo(port);
    ASSERT_EQ(manager.next(), "STATUS=Relays: 1");
    std::this_thread::sleep_for(600ms); // time for another look at the relays
    EXPECT_EQ(manager.next(MSG_DONTWAIT), "") << "nothing has changed";
    client.reset();
    ASSERT_EQ(manager.next(), "STATUS=Relays: 0");
    daemon.process->signal(SIGTERM);
    ASSERT_EQ(manager.next(), "STOPPING=1\nSTATUS=Stopping");
}

// The parameter is a stage of the daemon's life; a method is one whose call is not answered.
class Stop : public DaemonTest, public testing::WithParamInterface<const char*> {
protected:
    std::vector<FileDescriptor> reach() {
        std::vector<FileDescriptor> clients;
        const auto isCalled = [&] { return service.count(stage + " 7*") > 0; };
        if (stage == "vorlTest") {
            service.answer(stage, Answer::Never);
            const size_t before = service.count(stage);
            configure();
            daemon.start();
            EXPECT_TRUE(eventually([&] { return service.count(stage) > before; }));
            return clients;
        }
        start(stub(stage == "launching" ? "never" : stage == "relaying" ? "slow" : "echo"));
        if (isCall || stage == "relaying")
            clients.push_back(open(8, 8));
        service.answer(stage, Answer::Never);
        if (stage == "relaying") {
            clients.push_back(open(7));
        } else if (stage != "idle") {
            allow();
            if (stage != "listening" && stage != "proxyListenStarted")
                clients.push_back(connectTo(port));
        }
        EXPECT_TRUE(stage != "launching" || bool(journal.saw({"asyncWaitPid: added task, *"})));
        EXPECT_TRUE(!isCall || eventually(isCalled)) << stage;
        if (stage == "proxySessionConnected") // its handler waits for what the call holds
            service->signalSessionDisconnected(7, shadowPid(), "");
        return clients;
    }

    const std::string stage = GetParam();
    const bool isCall = stage.starts_with("vorl") || stage.starts_with("proxy");
};

TEST_P(Stop, EndsAllInOrder) {
    std::map<std::string, std::vector<std::string>> messages = {
        {"launching", {"actionCreateTransport: exception: proxy stopped, session id: 7"}},
        {"relaying", // by its shadow server's end, a relay ends otherwise
         {"JobTransfer: job stopped, session id: ?, result: unknown",
          "JobTransferStopped: kill transport, pid: *"}}};
    for (const int number : {SIGTERM, SIGINT, 0}) {
        if (isCall && number != SIGTERM && (stage != "vorlTest" || number == 0))
            continue;
        const std::vector<FileDescriptor> clients = reach();
        std::istringstream children(daemon.children());
        number == 0 ? service->signalVorlStopped() : daemon.process->signal(number);
        if (isCall && stage != "vorlTest") {
            EXPECT_TRUE(journal.saw({"JobTransfer: job stopped, session id: 8, *"}, 4s));
            EXPECT_TRUE(ends(clients[0]) && !daemon.process->wait(0ms)) << "no relay waits";
        }
        EXPECT_EQ(daemon.process->wait(10s), 0);
        for (pid_t pid = 0; children >> pid;)
            EXPECT_NE(kill(pid, 0), 0) << "a shadow server";
        for (const FileDescriptor& client : clients)
            EXPECT_TRUE(ends(client));
        for (const std::string& message : messages[stage])
            EXPECT_TRUE(journal.saw({message}));
        if (stage == "idle" || stage == "listening") {
            EXPECT_EQ(journal.count("*: exception: *"), 0u);
        }
    }
    for (const char* file : {"sam_3_0", "proxy_7_0", "proxy_8_0"})
        EXPECT_FALSE(stage == "relaying" && exists(daemon.workDirectory / file)) << file;
}

INSTANTIATE_TEST_SUITE_P(AtEveryStage, Stop,
                         testing::Values("idle", "listening", "launching", "relaying", "vorlTest",
                                         "proxyListenStarted", "proxyClientConnected",
                                         "vorlSessionInfoJson", "proxySessionConnected"),
                         [](const auto& stage) { return std::string(stage.param); });

} // namespace VorlTest

#include "fixtures/stage.h"

#include <sys/un.h>

namespace VorlTest {

class Failure : public Stage {
protected:
    // The daemon lets go of a client, logs this, and serves the next one.
    void expectFailure(const std::vector<std::string>& messages) {
        journal.forget();
        allow();
        const Fd client = connectTo(port);
        EXPECT_TRUE(ends(client));
        EXPECT_TRUE(journal.saw(messages));
    }

    void expectService() {
        service.answerDescription("{}");
        EXPECT_TRUE(echoes(open()));
    }

    const std::string launchFailed = "actionCreateTransport: exception: *, session id: 7";
};

TEST_F(Failure, OfTheSessionDescription) {
    start(R"("x11rdp:args": ["/ipc-socket:%{socket}", "%{authfile}%{home}"])");
    const std::string before = daemon.holdings();
    for (const char* text : {"{", "", R"({"display": "five"})", R"({"uid": [1]})"}) {
        service.answerDescription(text);
        expectFailure({launchFailed});
    }
    for (const std::string& text : {std::string("3"), '"' + std::string(400'000, 'x') + '"'}) {
        service.answerDescription(text);
        expectFailure({"JsonConfigString: config failed, not json object: `" + text + "'",
                       "actionCreateTransport: exception: JsonConfigString, session id: 7"});
    }
    for (const char* text : {R"({"home": "a%{home}"})", R"({"xauthfile": "%{authfile}"})"}) {
        service.answerDescription(text);
        expectFailure({"prepareX11RdpArgs: session description refused, *", launchFailed});
    }
    service.answer("vorlSessionInfoJson", SessionService::Answer::Error);
    expectFailure({"actionCreateTransport: exception: as told, session id: 7"});
    service.answer("vorlSessionInfoJson", SessionService::Answer::Reply);
    EXPECT_TRUE(eventually([&] { return daemon.holdings() == before; })) << daemon.holdings();
    expectService();
}

TEST_F(Failure, OfAProgramThatCannotBeStartedIsLogged) {
    start(R"("x11rdp:path": "/etc/passwd")");
    expectFailure({"runOwnerCommand: execv failed, error: Permission denied, code: 13",
                   "actionCreateTransport: exception: transport stopped, timeout, session id: 7",
                   "actionCreateTransport: child ended, pid: *, exit code: 1"});
}

TEST_F(Failure, OfAShadowServerWithoutSocketEndsIt) {
    start();
    const std::string before = daemon.holdings();
    const std::filesystem::path inTheWay = daemon.workDirectory / "proxy_7_0";
    std::ofstream(inTheWay) << "not a socket";
    expectFailure({"actionCreateTransport: exception: transport stopped, timeout, session id: 7",
                   "actionCreateTransport: child ended, pid: *, killed by signal: 15"});
    EXPECT_EQ(readFile(inTheWay), "not a socket");
    std::filesystem::remove(inTheWay);
    std::filesystem::remove(daemon.workDirectory / "sam_3_0");
    EXPECT_TRUE(eventually([&] { return daemon.holdings() == before; })) << daemon.holdings();

    const Fd stale(::socket(AF_UNIX, SOCK_STREAM, 0)); // one of an earlier run
    sockaddr_un address{AF_UNIX, {}};
    inTheWay.string().copy(address.sun_path, sizeof(address.sun_path));
    EXPECT_EQ(bind(stale, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    expectService();
}

TEST_F(Failure, OfAShadowServerThatRefusesLetsTheClientGoAndWaitsForIt) {
    start(stub("refuse"));
    expectFailure({"unixConnect: connect failed, error: Connection refused, code: 111",
                   "actionCreateTransport: transport not started, session id: 7"});
    EXPECT_EQ(journal.count("*child ended*"), 0u);
    service->signalProxyAllowConnection(8, 1);
    EXPECT_TRUE(journal.saw({"*: listen transport busy, session id: 8",
                             "actionCreateTransport: child ended, pid: *, exit code: 4"}));
    EXPECT_EQ(service.count("proxySessionConnected *"), 0u);
}

TEST_F(Failure, OfTheFirstTwoCallsLeavesNothingOpen) {
    start();
    const std::string before = daemon.holdings();
    service.answer("proxyListenStarted", SessionService::Answer::Error);
    allow();
    EXPECT_TRUE(journal.saw({"actionCreateTransport: exception: as told, session id: 7"}));
    EXPECT_TRUE(eventually([&] { return daemon.holdings() == before; })) << daemon.holdings();
    EXPECT_EQ(connectTo(port, 0ms), -1);
    service.answer("proxyListenStarted", SessionService::Answer::Reply);
    service.answer("proxyClientConnected", SessionService::Answer::Error);
    expectFailure({"actionCreateTransport: exception: as told, session id: 7"});
    EXPECT_TRUE(eventually([&] { return daemon.holdings() == before; })) << daemon.holdings();
    service.answer("proxyClientConnected", SessionService::Answer::Reply);
    expectService();
}

TEST_F(Failure, OfTheLastCallClosesTheClientAndKeepsTheJob) {
    start();
    const std::string before = daemon.holdings();
    service.answer("proxySessionConnected", SessionService::Answer::Error);
    expectFailure({"actionCreateTransport: session id: 7, create transfer job, *",
                   "actionCreateTransport: exception: as told, session id: 7"});
    const uint32_t pid = static_cast<uint32_t>(std::stoi(shadow()["Pid:"].asString()));
    service.answer("proxySessionConnected", SessionService::Answer::Reply);
    {
        const Fd client = open(7); // must not get what was the first one's
        EXPECT_TRUE(echoes(client));
        EXPECT_NE(shadow("rdp_transport_1000_1.log")["Pid:"].asString(), std::to_string(pid));
        EXPECT_EQ(journal.count("JobTransfer: job stopped, *"), 0u);
    }
    service->signalSessionDisconnected(7, pid, "");
    EXPECT_TRUE(eventually([&] { return daemon.holdings() == before; })) << daemon.holdings();
}

} // namespace VorlTest

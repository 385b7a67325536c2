#include "fixtures/daemon_test.h"

namespace VorlTest {

class Failure : public DaemonTest {
protected:
    // The daemon disconnects a client and logs these messages.
    void expectFailure(const std::vector<std::string>& messages) {
        journal.forget();
        allow();
        EXPECT_TRUE(ends(connectTo(port)));
        EXPECT_TRUE(journal.saw(messages));
    }

    const std::string failed = "actionCreateTransport: exception: ";
    const std::string timedOut = failed + "transport stopped, timeout, session id: 7";
    const std::string toldSo = failed + "as told, session id: 7";
};

TEST_F(Failure, OfTheSessionDescription) {
    start(R"("x11rdp:args": ["/ipc-socket:%{socket}", "%{authfile}%{home}", "%{ho%{home}"])");
    const std::string before = daemon.resources();
    const auto expect = [&](const std::string& json, const std::vector<std::string>& messages) {
        service.reply("vorlSessionInfoJson", json);
        expectFailure(messages);
    };
    for (const char* json : {"{", "", R"({"display": "five"})", R"({"uid": [1]})"})
        expect(json, {failed + "*, session id: 7"});
    for (const std::string& json : {std::string("3"), '"' + std::string(100'000, 'x') + '"'})
        expect(json, {"JsonConfigString: config failed, not json object: `" + json + "'",
                      failed + "JsonConfigString, session id: 7"});
    expect('"' + std::string(10'000'000, 'x') + '"', // libsystemd drops a line of over 1 MiB
           {failed + "JsonConfigString, session id: 7"});
    for (const char* json : {R"({"home": "a%{home}"})", R"({"xauthfile": "%{authfile}"})"})
        expect(json, {"prepareX11RdpArgs: launch refused, *%{* still there after 1 replacements, *",
                      failed + "*"});
    // One becomes two, which become four, and so on.
    expect(R"({"home": "me}me}%{ho%{ho"})",
           {"prepareX11RdpArgs: launch refused, %{home} still there after 11 replacements, *"});
    service.answer("vorlSessionInfoJson", Answer::Error);
    expectFailure({toldSo});
    EXPECT_TRUE(holds(before));
}

TEST_F(Failure, OfAProgramThatCannotBeStarted) {
    start(R"("x11rdp:path": "/etc/passwd")");
    expectFailure({"runOwnerCommand: execv failed, error: Permission denied, code: 13", timedOut,
                   "actionCreateTransport: child ended, pid: *, exit code: 1"});
}

TEST_F(Failure, OfAShadowServerWithoutASocketEndsIt) {
    start();
    const std::filesystem::path inTheWay = daemon.workDirectory / "proxy_7_0";
    std::ofstream(inTheWay) << "not a socket";
    expectFailure({timedOut, "actionCreateTransport: child ended, pid: *, killed by signal: 15"});
    EXPECT_EQ(readFile(inTheWay), "not a socket");
    std::filesystem::remove(inTheWay);
    EXPECT_EQ(mknod(inTheWay.c_str(), S_IFSOCK | 0600, 0), 0); // of an earlier run
    EXPECT_TRUE(echoes(open()));
}

TEST_F(Failure, OfAShadowServerThatRefusesLetsTheClientGoAndWaitsForIt) {
    start(stub("refuse"));
    const std::string before = daemon.resources();
    expectFailure({"unixConnect: connect failed, error: Connection refused, code: 111",
                   "actionCreateTransport: transport not started, session id: 7"});
    EXPECT_EQ(journal.count("unixConnect: connect failed, *"), 1u);
    EXPECT_EQ(journal.count("*child ended*"), 0u);
    service->signalProxyAllowConnection(8, 1);
    EXPECT_TRUE(journal.saw({"*: listen transport busy, session id: 8",
                             "actionCreateTransport: child ended, pid: *, exit code: 4"}));
    EXPECT_EQ(readFile(daemon.workDirectory / "rdp_transport_1000_0.log").find("SIGTERM"),
              std::string::npos);
    EXPECT_TRUE(eventually([&] { return daemon.resources().starts_with(before); }));
}

TEST_F(Failure, OfACallLeavesNothingOpen) {
    start();
    const std::string before = daemon.resources();
    service.answer("proxyListenStarted", Answer::Error);
    allow();
    EXPECT_TRUE(journal.saw({toldSo}));
    EXPECT_TRUE(holds(before));
    service.answer("proxyListenStarted", Answer::Reply);
    service.answer("proxyClientConnected", Answer::Error);
    expectFailure({toldSo});
    EXPECT_TRUE(holds(before));
    service.answer("proxyClientConnected", Answer::Reply);

    service.answer("proxySessionConnected", Answer::Error); // the job stays
    const size_t descriptors = daemon.descriptors();
    expectFailure({"actionCreateTransport: session id: 7, create transfer job, *", toldSo});
    EXPECT_TRUE(eventually([&] { return daemon.descriptors() == descriptors + 2; }))
        << "nobody else gets its numbers";
    service.answer("proxySessionConnected", Answer::Reply);
    FileDescriptor client = open(7); // must not get what was the first one's
    EXPECT_TRUE(echoes(client));
    EXPECT_NE(shadowPid(0), shadowPid(1));
    EXPECT_EQ(journal.count("JobTransfer: job stopped, *"), 0u);
    client.reset();
    service->signalSessionDisconnected(7, shadowPid(0), "");
    EXPECT_TRUE(holds(before));
}

} // namespace VorlTest

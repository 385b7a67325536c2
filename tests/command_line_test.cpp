#include "fixtures/stage.h"

namespace VorlTest {

using CommandLine = Stage;

TEST_F(CommandLine, AnythingUnknownPrintsTheUsage) {
    using Arguments = std::vector<std::string>;
    for (const Arguments& arguments :
         {Arguments{"-h"}, {"--config"}, {"--config", "x", "--user"}, {"--background", "more"}}) {
        daemon.arguments = arguments;
        daemon.start();
        EXPECT_EQ(daemon.process->wait(), 0);
        const std::string output = readFile(daemon.home / "output");
        EXPECT_TRUE(
            output.starts_with("usage: " VORL_PROXY "--background --config <path> --user <user>\n"))
            << output;
        EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 2) << output;
    }
}

TEST_F(CommandLine, TheConfigurationIsNamedOrIsVorlProxyJson) {
    for (const auto& arguments : {std::vector<std::string>{}, {"--config", "nowhere.json"}}) {
        daemon.arguments = arguments;
        daemon.start();
        EXPECT_EQ(daemon.process->wait(), 1);
        EXPECT_EQ(readFile(daemon.home / "errors"), "config not found\n");
    }
    daemon.arguments = {"--config", "nowhere.json", "--config", daemon.configuration};
    start();
    stop();
    std::filesystem::rename(daemon.configuration, daemon.home / "vorl_proxy.json");
    daemon.arguments = {};
    daemon.start();
    EXPECT_TRUE(journal.saw({"start: started, *", "start: started, *"}));
}

TEST_F(CommandLine, InTheBackgroundItIgnoresSigintAndStopsOnSigterm) {
    daemon.arguments.push_back("--background");
    start();
    EXPECT_EQ(daemon.process->wait(), 0);
    const pid_t pid = std::stoi(journal.records().back()["_PID"]);
    EXPECT_TRUE(journal.saw({"*, pid: " + std::to_string(pid) + ", uid: *"}));
    kill(pid, SIGINT);
    service->signalProxyListenTimeout(3);
    EXPECT_TRUE(journal.saw({"signalProxyListenTimeout: set timeout: 3"}));
    kill(pid, SIGTERM);
    int status = -1;
    EXPECT_TRUE(eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; }));
    EXPECT_EQ(status, 0);
}

TEST_F(CommandLine, UserSwitchesTheAccountOfAllThatFollows) {
    if (readFile("/proc/self/uid_map").find("4294967295") == std::string::npos) {
        GTEST_SKIP() << "needs the accounts of real root";
    }
    const std::filesystem::path home = makeDirectory();
    EXPECT_EQ(chown(home.c_str(), 4711, 4712), 0);
    std::filesystem::copy(SHADOW_STUB, home / "shadow");
    std::ofstream(home / "passwd")
        << "root:x:0:0::/root:/bin/sh\nvorl:x:4711:4712:G:" << home.string() << ":/bin/vorlsh\n";
    std::ofstream(home / "group") << "primary:x:4712:\nextra:x:4713:vorl\n";
    const Cover accounts("/etc/passwd", home / "passwd");
    const Cover groups("/etc/group", home / "group");

    daemon.arguments = {"--config", "proxy.json", "--user", "vorl"}; // relative to where it starts
    start(R"("x11rdp:path": ")" + (home / "shadow").string() + "\"");
    EXPECT_TRUE(journal.saw({"start: started, *, uid: 4711"}));
    const Fd client = open();
    Json::Value facts = shadow(home / ".vorl/rdp_transport_1000_0.log");
    EXPECT_EQ(facts["Uid:"], "4711\t4711\t4711\t4711");
    EXPECT_EQ(facts["Gid:"], "4712\t4712\t4712\t4712");
    EXPECT_EQ(facts["Groups:"], "4712 4713 ");
    const std::vector<std::string> account = {"USER=vorl", "LOGNAME=vorl", "SHELL=/bin/vorlsh",
                                              "TERM=linux", "HOME=" + home.string()};
    for (const std::string& entry : account) {
        EXPECT_NE((facts["environment"].asString() + ", ").find(", " + entry + ", "),
                  std::string::npos)
            << entry;
    }
    stop();

    daemon.arguments = {"--config", daemon.configuration, "--user", "nobody-known"};
    start();
    EXPECT_TRUE(journal.saw({"getUserInfo: getpwnam_r failed, user: `nobody-known', error: *",
                             "start: started, *, uid: 0"}));
}

} // namespace VorlTest

#include "fixtures/daemon_test.h"

#include <sys/stat.h>

namespace VorlTest {

class StartUp : public DaemonTest {
protected:
    // Starts a daemon that ends by itself with that status after these messages.
    void expectEnd(const std::vector<std::string>& messages, int status = 0) {
        journal.forget();
        daemon.start();
        EXPECT_EQ(daemon.process->wait(), status);
        EXPECT_TRUE(journal.saw(messages));
    }
};

TEST_F(StartUp, ReadsItsCommandLine) {
    using Arguments = std::vector<std::string>;
    for (const Arguments& wrong :
         {Arguments{"-h"}, {"--config"}, {"--config", "x", "--user"}, {"--background", "more"}}) {
        daemon.arguments = wrong;
        expectEnd({});
        const std::string output = readFile(daemon.home / "output");
        EXPECT_EQ(output, "usage: " VORL_PROXY "--background --config <path> --user <user>\n"
                          "manual: man vorl_proxy\n");
    }
    for (const Arguments& absent : {Arguments{}, {"--config", "nowhere.json"}}) {
        daemon.arguments = absent;
        expectEnd({}, 1);
        EXPECT_EQ(readFile(daemon.home / "errors"), "config not found\n");
    }
    daemon.arguments = {"--config", "nowhere.json", "--config", "proxy.json"};
    start();
    stop();
    std::filesystem::rename(daemon.configuration, daemon.home / "vorl_proxy.json");
    daemon.arguments = {};
    daemon.start();
    EXPECT_TRUE(journal.saw({"start: started, *", "start: started, *"}));
}

TEST_F(StartUp, SaysItsVersionAndInTheBackgroundIgnoresSigint) {
    daemon.arguments.push_back("--background");
    start();
    EXPECT_EQ(daemon.process->wait(), 0);
    const pid_t pid = journal.number("start: started, *", ", pid: ");
    EXPECT_TRUE(journal.saw({"start: started, version VORL PROXY v.2.1.5 build(" VORL_BUILD_STAMP
                             "), pid: " +
                             std::to_string(pid) + ", uid: 0"}));
    kill(pid, SIGINT);
    EXPECT_TRUE(echoes(open()));
    EXPECT_TRUE(journal.saw({"PeriodicTask: remove job, session id: 7"})) << "it goes on";
    kill(pid, SIGTERM);
    int status = -1;
    EXPECT_TRUE(eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; }));
    EXPECT_EQ(status, 0);
}

TEST_F(StartUp, UserSwitchesTheAccountOfAllThatFollows) {
    if (!hasAllAccounts())
        GTEST_SKIP() << "needs root";
    const std::filesystem::path home = makeDirectory();
    EXPECT_EQ(chown(home.c_str(), 4711, 4712), 0);
    std::filesystem::copy(SHADOW_STUB, home / "shadow");
    std::ofstream(home / "passwd")
        << "root:x:0:0::/root:/bin/sh\nvorl:x:4711:4712:G:" << home.string() << ":/bin/vorlsh\n";
    std::ofstream(home / "group") << "primary:x:4712:\nextra:x:4713:vorl\n";
    const ScopedMount accounts("/etc/passwd", home / "passwd"),
        groups("/etc/group", home / "group");
    daemon.arguments = {"--config", "proxy.json", "--user", "vorl"}; // relative to where it starts
    daemon.workDirectory = home / ".vorl";
    start(R"("x11rdp:path": ")" + (home / "shadow").string() + '"');
    EXPECT_TRUE(journal.saw({"start: started, *, uid: 4711"}));
    EXPECT_EQ(
        std::filesystem::read_symlink("/proc/" + std::to_string(daemon.process->pid()) + "/cwd"),
        home);
    const FileDescriptor client = open();
    EXPECT_EQ(shadow("Uid") + shadow("Gid") + shadow("Groups"),
              "4711\t4711\t4711\t47114712\t4712\t4712\t47124712 4713 ");
    for (const char* entry : {"USER=vorl", "LOGNAME=vorl", "SHELL=/bin/vorlsh", "TERM=linux"})
        EXPECT_NE(shadow("environment").find(entry), std::string::npos) << entry;
    EXPECT_NE(shadow("environment").find("HOME=" + home.string()), std::string::npos);
    stop();

    std::filesystem::copy(VORL_PROXY, home / "vorl_proxy");
    const std::vector<std::string> asRoot = std::exchange(
        daemon.arguments, {"--reuid=4711", "--regid=4712", "--clear-groups", home / "vorl_proxy",
                           "--config", "proxy.json", "--user", "nobody-known"});
    daemon.program = "/usr/bin/setpriv";
    daemon.environment[0] = "HOME=" + home.string();
    start();
    EXPECT_EQ(journal.count("getUserInfo: *"), 0u) << "without root, the option is ignored";
    stop();
    daemon.program = VORL_PROXY;
    daemon.arguments = asRoot;
    daemon.environment[0] = "HOME=" + daemon.home.string();

    std::filesystem::permissions(daemon.configuration, std::filesystem::perms::owner_read);
    expectEnd({"readJson: open failed, path: *proxy.json", "exception: ProxyConnection"});

    daemon.arguments.back() = "nobody-known";
    start();
    EXPECT_TRUE(journal.saw({"getUserInfo: getpwnam_r failed, user: `nobody-known', error: *",
                             "start: started, *, uid: 0"}));
}

TEST_F(StartUp, OpensStandardStreamsThatAreClosed) {
    daemon.program = "/bin/sh";
    daemon.arguments = {"-c", "exec " VORL_PROXY " --config proxy.json <&- >&- 2>&-"};
    start();
    for (const char* stream : {"0", "1", "2"}) {
        const std::string file = "/proc/" + std::to_string(daemon.process->pid()) + "/fd/" + stream;
        EXPECT_EQ(std::filesystem::read_symlink(file), "/dev/null") << stream;
    }
}

TEST_F(StartUp, AConfigurationThatIsNoObjectEndsIt) {
    const std::string file = daemon.configuration;
    std::ofstream(file) << "[1]";
    expectEnd({"readJson: file: " + file, "ProxyConnection: json not object, file: " + file,
               "exception: ProxyConnection"});
    std::filesystem::remove(file);
    EXPECT_EQ(mkfifo(file.c_str(), 0600), 0); // without a writer, for which an open would wait
    expectEnd({"readJson: open failed, path: " + file, "exception: ProxyConnection"});
}

TEST_F(StartUp, NeedsAHomeAndTakesTmpWithoutOne) {
    configure();
    daemon.environment[0] = "HOME=/nowhere";
    expectEnd({"ProxyConnection: home not found, path: `/nowhere', uid: 0",
               "exception: ProxyConnection"});
    const std::string loop = daemon.home / "loop";
    std::filesystem::create_symlink(loop, loop);
    daemon.environment[0] = "HOME=" + loop;
    expectEnd({"exception: what: `*', path1: `" + loop +
               "', path2:`', code value: 40, code message: `*', category name: `*'"});
    std::filesystem::copy(VORL_PROXY, daemon.program = "/run/vorl_proxy");
    const ScopedMount tmp("/tmp"); // which may hide the build, and a sanitizer's options
    daemon.environment = {daemon.environment[1]};
    service.reply("vorlTest", "");
    expectEnd({"start: check service: failed"});
    EXPECT_TRUE(std::filesystem::is_directory("/tmp/.vorl"));
    daemon.process.reset();
}

TEST_F(StartUp, NeedsAServiceAndABus) {
    configure();
    service.reply("vorlTest", "");
    expectEnd({"setDebugLevel: level: debug", "start: check service: failed"});
    service.answer("vorlTest", Answer::Error);
    expectEnd({"dbus error: as told"});
    service.leave();
    expectEnd({"dbus error: *"});
    bus.daemon.signal(SIGKILL);
    EXPECT_TRUE(bus.daemon.wait());
    expectEnd({}, 128 + SIGABRT); // deliberately: nobody is left to report to
    daemon.process.reset();
}

} // namespace VorlTest

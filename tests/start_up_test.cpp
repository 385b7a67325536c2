#include "fixtures/stage.h"

namespace VorlTest {

class StartUp : public Stage {
protected:
    // Starts a daemon that ends by itself, with status 0, after these messages.
    void expectEnd(const std::vector<std::string>& messages) {
        journal.forget();
        daemon.start();
        EXPECT_EQ(daemon.process->wait(), 0);
        EXPECT_TRUE(journal.saw(messages));
    }
};

TEST_F(StartUp, AConfigurationThatIsNoObjectEndsIt) {
    const std::string file = daemon.configuration;
    const std::string notStrict = "readJson: parse failed, path: " + file + ", json error: `*'";
    const std::string notObject = "ProxyConnection: json not object, file: " + file;
    for (const char* text : {"// remark\n{}", "5", ""}) {
        std::ofstream(file) << text;
        expectEnd({"readJson: file: " + file, notStrict, notObject, "exception: ProxyConnection"});
    }
    std::ofstream(file) << "[1]";
    expectEnd({notObject, "exception: ProxyConnection"});
    std::filesystem::remove(file);
    std::filesystem::create_directory(file);
    expectEnd({"readJson: file: " + file, "exception: *"});

    std::filesystem::remove(file);
    std::ofstream(file) << "{\"debug:level\": \"trace\", "; // the object that it begins counts
    daemon.start();
    EXPECT_TRUE(journal.saw({notStrict, "setDebugLevel: level: trace", "start: started, *"}));
}

TEST_F(StartUp, AHomeThatCannotBeUsedEndsIt) {
    configure();
    daemon.environment.push_back("HOME=/nowhere");
    std::swap(daemon.environment[1], daemon.environment.back());
    expectEnd({"ProxyConnection: home not found, path: `/nowhere', uid: 0",
               "exception: ProxyConnection"});
    const std::string loop = daemon.home / "loop";
    std::filesystem::create_symlink(loop, loop);
    daemon.environment[1] = "HOME=" + loop;
    expectEnd({"exception: what: `*', path1: `" + loop +
               "', path2:`', code value: 40, code message: `*', category name: `*'"});
}

TEST_F(StartUp, WithoutHomeItWorksInTmp) {
    std::filesystem::copy(VORL_PROXY, "/run/vorl_proxy"); // the build may be in /tmp
    const Cover emptyTmp("/tmp");
    daemon.environment[1] = "UNSET=";
    daemon.program = "/run/vorl_proxy";
    start();
    EXPECT_TRUE(std::filesystem::is_directory("/tmp/.vorl"));
    stop();
}

TEST_F(StartUp, AServiceThatIsNotReadyEndsIt) {
    configure();
    service.answerTest("");
    expectEnd({"setDebugLevel: level: debug", "start: check service: failed"});
    service.answer("vorlTest", SessionService::Answer::Error);
    expectEnd({"dbus error: as told"});
    service.leave();
    expectEnd({"dbus error: *"});
}

TEST_F(StartUp, WithoutABusItAborts) {
    configure();
    bus.daemon.signal(SIGKILL);
    EXPECT_TRUE(bus.daemon.wait());
    daemon.start();
    EXPECT_EQ(daemon.process->wait(), 128 + SIGABRT);
    daemon.process.reset();
}

TEST_F(StartUp, SaysItsVersion) {
    start();
    const std::string pid = std::to_string(daemon.process->pid());
    EXPECT_TRUE(
        journal.saw({"start: started, version VORL PROXY v.2.1.5 build(202507220750), pid: " + pid +
                     ", uid: 0"}));
    EXPECT_EQ(service.calls(), std::vector<std::string>{"vorlTest"});
}

} // namespace VorlTest

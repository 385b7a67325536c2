#include "common/error.h"
#include "fixtures/journal.h"
#include "fixtures/sandbox.h"
#include "logger"
#include "proxy/config_file.h"

#include <fstream>

#include <sys/time.h>

namespace VorlTest {

using Vorl::DebugLevel;
using Vorl::Syslog;

// The configuration file, changed and read again in this process.
class Configuration : public testing::Test {
protected:
    void SetUp() override {
        Syslog::setDebugLevel(DebugLevel::Info);
        write(R"({"listen:port": 1, "debug:level": "debug"})");
    }

    // Writes the file, with another modification time in whole seconds each time.
    void write(const std::string& text) {
        std::ofstream(path) << text;
        touch(++seconds);
    }
    void touch(time_t time) {
        const timeval times[] = {{time, 0}, {time, 0}};
        utimes(path.c_str(), times);
    }

    const std::string path = makeDirectory() / "proxy.json";
    time_t seconds = 1000;
    Journal journal;
};

TEST_F(Configuration, IsReadAgainWhenItsTimeHasChangedSinceTheLastLook) {
    Vorl::ConfigFile file(path);
    const auto port = [&] { return file.current()->getInteger("listen:port"); };
    EXPECT_EQ(Syslog::debugLevel(), DebugLevel::Info) << "not set before it is asked for";
    file.applyDebugLevel();
    EXPECT_EQ(Syslog::debugLevel(), DebugLevel::Debug);
    write(R"({"listen:port": 2})");
    EXPECT_FALSE(file.reload()) << "the first look only records the time";
    EXPECT_FALSE(file.reload());
    EXPECT_EQ(port(), 1);
    const auto held = file.current();
    write(R"({"listen:port": 3, "debug:level": "none"})");
    EXPECT_TRUE(file.reload());
    EXPECT_EQ(held->getInteger("listen:port"), 1);
    EXPECT_EQ(Syslog::debugLevel(), DebugLevel::None);
    std::ofstream(path) << R"({"listen:port": 4})";
    touch(seconds);
    EXPECT_FALSE(file.reload()) << "within the same second";
    EXPECT_EQ(port(), 3);
    touch(seconds = 500); // an older file counts as well
    EXPECT_TRUE(file.reload());
    EXPECT_EQ(Syslog::debugLevel(), DebugLevel::Info) << "when it is not set";
    write(R"({"listen:port": 5, "debug:level": "trace", )");
    EXPECT_TRUE(file.reload()) << "what could be read of it counts";
    EXPECT_EQ(port(), 5);
    EXPECT_EQ(Syslog::debugLevel(), DebugLevel::Trace);
    EXPECT_TRUE(journal.saw({"setDebugLevel: level: debug", "readJson: file: " + path,
                             "reloadConfigWatcher: success",
                             "readJson: parse failed, path: " + path + ", json error: `*'",
                             "setDebugLevel: level: trace", "reloadConfigWatcher: success"}));
    EXPECT_EQ(journal.count("setDebugLevel: level: info"), 0u) << "filtered by the level before";
}

TEST_F(Configuration, StaysAsItIsWhenTheFileIsNoGood) {
    Vorl::ConfigFile file(path);
    Syslog::setDebugLevel(DebugLevel::Debug);
    EXPECT_FALSE(file.reload());
    const auto expectKept = [&](const std::vector<std::string>& messages) {
        EXPECT_FALSE(file.reload());
        EXPECT_TRUE(journal.saw(messages));
        EXPECT_EQ(file.current()->getInteger("listen:port"), 1);
        journal.forget();
    };
    const std::string notObject = "reloadConfigWatcher: json not object, file: " + path;
    for (const char* text : {"[1", "5", "", "// remark\n{}"}) {
        write(text);
        expectKept({"readJson: parse failed, *", notObject});
        EXPECT_THROW(Vorl::ConfigFile{path}, Vorl::vorl_error);
    }
    write("[1]");
    expectKept({notObject});
    EXPECT_FALSE(file.reload());
    EXPECT_EQ(journal.count("*"), 0u) << "not read again until it changes";
    write(R"({"listen:port": 2, "debug:level": []})");
    EXPECT_THROW(file.reload(), Json::LogicError);
    expectKept({});
    std::filesystem::remove(path);
    expectKept({"reloadConfigWatcher: stat failed, error: No such file or directory, code: 2"});
    std::filesystem::create_directory(path);
    touch(++seconds);
    expectKept({"readJson: parse failed, *", notObject});
    std::filesystem::remove(path);
    write(R"({"listen:port": 1, "debug:level": "Debug"})");
    EXPECT_TRUE(file.reload());
    expectKept({"setDebugLevel: level: Debug", "setDebugLevel: unknown level: Debug"});
    EXPECT_EQ(Syslog::debugLevel(), DebugLevel::Debug);
}

TEST_F(Configuration, IsReplacedWhileOthersReadIt) {
    Vorl::ConfigFile file(path);
    std::atomic<bool> done = false;
    const auto read = [&] {
        while (!done)
            EXPECT_EQ(file.current()->getInteger("listen:port"), 1);
    };
    Syslog::setDebugLevel(DebugLevel::Quiet);
    const std::jthread first(read), second(read);
    for (int i = 0; i < 500; ++i) {
        touch(++seconds);
        EXPECT_EQ(file.reload(), i > 0);
        Syslog::setDebugLevel(DebugLevel::Quiet);
    }
    done = true;
}

} // namespace VorlTest

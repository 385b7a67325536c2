#include "fixtures/stage.h"

#include <sys/time.h>

namespace VorlTest {

class Reload : public Stage {
protected:
    // Gives the file another modification time, in whole seconds, each time it is called.
    void touch() {
        const timeval times[] = {{++seconds, 0}, {seconds, 0}};
        utimes(daemon.configuration.c_str(), times);
    }

    bool reloads() {
        const size_t before = journal.count("reloadConfigWatcher: success");
        return eventually([&] { return journal.count("reloadConfigWatcher: success") > before; });
    }

    time_t seconds = 1000;
};

TEST_F(Reload, AChangedFileIsInForceAtTheNextUse) {
    const auto begin = std::chrono::steady_clock::now();
    start();
    configure(R"("listen:addr": "127.0.0.1", "debug:level": "trace")");
    EXPECT_TRUE(eventually([&] { // tells nothing of the first look
        touch();
        return bool(journal.saw({"reloadConfigWatcher: success"}, 500ms));
    }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 6s) << "two looks, the first only learns";
    EXPECT_TRUE(journal.saw({"readJson: file: " + daemon.configuration.string(),
                             "setDebugLevel: level: trace", "reloadConfigWatcher: success"}));
    EXPECT_TRUE(echoes(open()));
    EXPECT_TRUE(journal.saw({"actionCreateTransport: address: 127.0.0.1, *"}));

    const std::string file = daemon.configuration;
    const auto change = [&](const std::string& text) {
        std::ofstream(file) << text;
        touch();
    };
    change("[1]");
    EXPECT_TRUE(journal.saw({"reloadConfigWatcher: json not object, file: " + file}));
    change("[1");
    EXPECT_TRUE(journal.saw({"readJson: parse failed, path: *",
                             "reloadConfigWatcher: json not object, file: " + file}));
    change(R"({"debug:level": [], "listen:addr": "127.0.0.9"})");
    EXPECT_TRUE(journal.saw({"PeriodicTask: exception: *"}));
    std::filesystem::remove(file);
    EXPECT_TRUE(journal.saw({"reloadConfigWatcher: stat failed, error: *, code: 2",
                             "reloadConfigWatcher: stat failed, error: *, code: 2"}));
    EXPECT_TRUE(echoes(open())); // the last good one holds
    EXPECT_EQ(journal.count("actionCreateTransport: address: 127.0.0.1, *"), 2u);

    configure(R"("debug:level": "Debug")"); // no level, and no other one than before
    touch();
    EXPECT_TRUE(journal.saw({"setDebugLevel: level: Debug", "setDebugLevel: unknown level: Debug",
                             "reloadConfigWatcher: success"}));
    configure(R"("debug:level": "none")");
    touch();
    EXPECT_TRUE(reloads());
    journal.forget();
    EXPECT_TRUE(echoes(open()));
    for (Journal::Record& record : journal.records())
        EXPECT_LE(record["PRIORITY"], "5") << record["MESSAGE"];
}

} // namespace VorlTest

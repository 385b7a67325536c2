#include "fixtures/journal.h"
#include "logger"

#include <fnmatch.h>

namespace VorlTest {

using Vorl::DebugLevel;
using Vorl::Syslog;

namespace {

void logAtEverySeverity() {
    Syslog::debug("%s: %d", "logging", 7);
    Syslog::info("%s: %d", "logging", 6);
    Syslog::notice("%s: %d", "logging", 5);
    Syslog::warning("%s: %d", "logging", 4);
    Syslog::error("%s: %d", "logging", 3);
}

} // namespace

TEST(Logging, EachLevelLetsItsSeveritiesThrough) {
    Journal journal;
    const std::map<DebugLevel, std::string> passed = {
        {DebugLevel::None, "543"}, {DebugLevel::Debug, "76543"}, {DebugLevel::Info, "6543"},
        {DebugLevel::Quiet, ""},   {DebugLevel::Console, ""},    {DebugLevel::Trace, "76543"}};
    for (const auto& [level, priorities] : passed) {
        Syslog::setDebugLevel(level);
        testing::internal::CaptureStderr();
        logAtEverySeverity();
        const std::string console = testing::internal::GetCapturedStderr();
        EXPECT_EQ(std::count(console.begin(), console.end(), '\n'),
                  level == DebugLevel::Console ? 5 : 0);
        EXPECT_EQ(Syslog::isTraceMode(), level == DebugLevel::Trace);

        Syslog::setDebugLevel(DebugLevel::Info);
        Syslog::error("%s", "the end");
        EXPECT_TRUE(journal.saw({"the end"}));
        std::string seen;
        for (Journal::Record& record : journal.records())
            seen += record["MESSAGE"] == "logging: " + record["PRIORITY"] ? record["PRIORITY"] : "";
        EXPECT_EQ(seen, priorities) << static_cast<int>(level);
        journal.forget();
    }
}

TEST(Logging, TheConsoleGetsTheLocalTimeATabAndTheText) {
    Syslog::setDebugLevel(DebugLevel::Console);
    testing::internal::CaptureStderr();
    Syslog::notice("%s: %u", "logging", 5U);
    EXPECT_EQ(fnmatch("[[]??/??/?? ??:??:??]\tlogging: 5\n",
                      testing::internal::GetCapturedStderr().c_str(), 0),
              0);
}

TEST(Logging, WordsSetTheLevelAndAreLoggedAtTheOldOne) {
    Journal journal;
    const std::vector<std::pair<std::string, DebugLevel>> words = {
        {"none", DebugLevel::None},   {"debug", DebugLevel::Debug}, {"trace", DebugLevel::Trace},
        {"Debug", DebugLevel::Trace}, {"", DebugLevel::Trace},      {"info", DebugLevel::Info}};
    Syslog::setDebugLevel(DebugLevel::Info);
    for (const auto& [word, level] : words) {
        Syslog::setDebugLevel(word);
        EXPECT_EQ(Syslog::debugLevel(), level) << word;
    }
    EXPECT_TRUE(journal.saw({"*: level: none", "*: level: trace", "*: level: Debug",
                             "setDebugLevel: unknown level: Debug", "setDebugLevel: level: ",
                             "setDebugLevel: unknown level: ", "setDebugLevel: level: info"}));
    EXPECT_EQ(journal.count("*: level: debug"), 0u);
    EXPECT_EQ(Vorl::notifyLevel(1) * 100 + Vorl::notifyLevel(2) * 10 + Vorl::notifyLevel(3), 120);
}

} // namespace VorlTest

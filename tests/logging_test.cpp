#include "fixtures/journal.h"
#include "logger"

namespace VorlTest {

using Vorl::DebugLevel;
using Vorl::Syslog;

TEST(Logging, EachLevelLetsItsSeveritiesThrough) {
    Journal journal;
    const std::map<DebugLevel, std::string> passing = {
        {DebugLevel::None, "543"}, {DebugLevel::Debug, "76543"}, {DebugLevel::Info, "6543"},
        {DebugLevel::Quiet, ""},   {DebugLevel::Console, ""},    {DebugLevel::Trace, "76543"}};
    for (const auto& [level, priorities] : passing) {
        Syslog::setDebugLevel(level);
        testing::internal::CaptureStderr();
        Syslog::debug("%s", "7");
        Syslog::info("%s", "6");
        Syslog::notice("%s", "5");
        Syslog::warning("%s", "4");
        Syslog::error("%s", "3");
        const std::string console = testing::internal::GetCapturedStderr();
        const char* const lines = "[[]*/*/* *:*:*]\t7\n[[]*]\t6\n[[]*]\t5\n[[]*]\t4\n[[]*]\t3\n";
        EXPECT_EQ(fnmatch(level == DebugLevel::Console ? lines : "", console.c_str(), 0), 0);
        EXPECT_EQ(Syslog::isTraceMode(), level == DebugLevel::Trace);

        Syslog::setDebugLevel(DebugLevel::Info);
        Syslog::error("%s", "the end");
        EXPECT_TRUE(journal.saw({"the end"}));
        std::string seen;
        for (Journal::Record& record : journal.records())
            seen += record["MESSAGE"] == record["PRIORITY"] ? record["PRIORITY"] : "";
        EXPECT_EQ(seen, priorities) << static_cast<int>(level);
        journal.forget();
    }
    std::filesystem::remove("/run/systemd/journal/socket");
    errno = 5;
    Syslog::error("%s", "nobody listens");
    EXPECT_EQ(errno, 5);
    EXPECT_EQ(Vorl::notifyLevel(1) * 100 + Vorl::notifyLevel(2) * 10 + Vorl::notifyLevel(3), 120);
}

TEST(Logging, TheTimeFollowsAChangedZone) {
    testing::internal::CaptureStdout();
    for (const char* zone : {"AAA0", "BBB-5"}) {
        setenv("TZ", zone, 1);
        Syslog::fprintf_time(stdout, "%Z ");
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "AAA BBB ");
    unsetenv("TZ");
}

} // namespace VorlTest

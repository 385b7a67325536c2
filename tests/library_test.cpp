#include "common/accounts.h"
#include "common/child_process.h"
#include "common/error.h"
#include "common/json_config.h"
#include "common/readiness.h"
#include "common/sockets.h"
#include "common/strings.h"
#include "fixtures/client.h"
#include "fixtures/daemon.h"
#include "fixtures/journal.h"
#include "logger"

namespace VorlTest {

using namespace Vorl;

class Library : public testing::Test {
protected:
    void SetUp() override { Syslog::setDebugLevel(DebugLevel::Debug); }

    Journal journal;
};

TEST_F(Library, JsonKeysAreFlatAndConvertAsJsoncppDoes) {
    const JsonConfigString config(R"({"listen:port": 4000, "listen": {"addr": "x"}, "null": null,
        "text": "5", "number": 5, "list": ["a", 2], "nested": [[1]]} // remark)");
    EXPECT_EQ(config.getInteger("listen:port", 1), 4000);
    EXPECT_EQ(config.getString("listen:addr", "fallback"), "fallback");
    EXPECT_EQ(config.getInteger("null", 7), 0);
    EXPECT_EQ(config.getString("number"), "5");
    EXPECT_EQ(config.getDouble("missing", 0.5), 0.5);
    EXPECT_THROW((void)config.getInteger("text"), Json::LogicError);
    EXPECT_THROW((void)config.getStringList("nested"), Json::LogicError);
    EXPECT_EQ(config.getVectorList("list"), (std::vector<std::string>{"a", "2"}));
    EXPECT_TRUE(config.getStringList("text").empty() && config.getStringList("missing").empty());
    EXPECT_TRUE(config.hasValue("null") && !config.hasValue("missing"));
    EXPECT_TRUE(readJson("/nowhere").isNull());
    EXPECT_TRUE(journal.saw({"readJson: file: /nowhere", "readJson: open failed, path: /nowhere"}));
}

TEST_F(Library, TextsAreReplacedFromTheStartAgainAndAgain) {
    EXPECT_EQ(Utils::stringReplace("aaabbb", "ab", ""), "");
    EXPECT_EQ(Utils::stringReplace("<n><n>", "<n>", -7), "-7-7");
    EXPECT_EQ(Utils::stringLower("AbÄ") + Utils::stringUpper("aBä"), "abÄABä");
}

TEST_F(Library, ALongSocketPathIsCutAndATextThatIsNoAddressRefused) {
    const std::string path = makeDirectory() / std::string(200, 'x');
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, 107);
    const FileDescriptor listener(socket(AF_UNIX, SOCK_STREAM, 0));
    EXPECT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(listen(listener.get(), 1), 0);
    EXPECT_TRUE(FileDescriptor(Socket::unixConnect(path)));
    EXPECT_TRUE(journal.saw({"unixConnect: unix path is long, truncated to size: 107",
                             "unixConnect: path: " + path.substr(0, 107), "unixConnect: fd: *"}));
    EXPECT_EQ(Socket::tcpListen("localhost", 0, 1), -1); // the kernel would take it for a broadcast
    EXPECT_TRUE(journal.saw({"tcpListen: bind failed, error: Cannot assign *, code: 99"}));
}

TEST_F(Library, OnlyInputIsReadiness) {
    EXPECT_FALSE(Utils::hasInput(-1, -1));
    EXPECT_EQ(Utils::hasData(-1), 0);
    const FileDescriptor unconnected = boundSocket("127.0.0.1", 0);
    EXPECT_FALSE(Utils::hasInput(unconnected.get(), 0)) << "reports a hang-up";
    EXPECT_THROW((void)Utils::hasData(open("/dev/null", O_RDONLY)), vorl_error);
}

TEST_F(Library, AccountsAndGroupsAreLookedUp) {
    const std::filesystem::path directory = makeDirectory();
    std::ofstream(directory / "group") << "staff:x:1234:b,a\n";
    const ScopedMount groups("/etc/group", directory / "group");
    EXPECT_EQ(Utils::getGroupMembers("staff"), (std::list<std::string>{"b", "a"}));
    EXPECT_EQ(Utils::getUserInfo("", true), nullptr);
    EXPECT_EQ(Utils::getUserUid("nobody-known") + Utils::getGroupGid("nobody-known"), 0u);
    EXPECT_FALSE(Utils::setOwner(directory / "missing", "root", "staff"));
    EXPECT_TRUE(Utils::setOwner(directory, "root", ""));
    EXPECT_TRUE(journal.saw({"getUserInfo: getpwnam_r failed, user: `nobody-known', error: *",
                             "getGroupInfo: getgrnam_r failed, group: `nobody-known', error: *",
                             "setOwner: path: *missing, user: root, group: staff",
                             "setOwner: chown failed, error: *, code: 2",
                             "setOwner: path: *, user: root, group: skipped"}));
    EXPECT_EQ(journal.count("getUserInfo: *"), 1u);
}

TEST_F(Library, AnOwnersProgramRunsAndLogsAsTheOwner) {
    if (!hasAllAccounts())
        GTEST_SKIP() << "needs root";
    const ScopedMount tmp("/tmp");
    const std::filesystem::path directory = makeDirectory();
    std::ofstream(directory / "passwd") << "bob:x:4711:4712:B:/nowhere:/bin/sh\n";
    const ScopedMount accounts("/etc/passwd", directory / "passwd");
    EXPECT_TRUE(Utils::runChildProcessWait("/bin/sh", {"-c", "id -u; echo $HOME $X >&2; exit 3"},
                                           {"X=1"}, "bob"));
    EXPECT_EQ(readFile("/tmp/.vorl_bob/sh.log"), "4711\n/nowhere 1\n");
    EXPECT_EQ(std::filesystem::status("/tmp/.vorl_bob").permissions(),
              std::filesystem::perms::owner_all);
    EXPECT_TRUE(journal.saw({"switchToUser: user: bob, uid: 4711, gid: 4712, home: /nowhere",
                             "switchToUser: chdir failed, error: *, code: 2",
                             "runOwnerCommand: switched user: bob, current uid: 4711, gid: 4712"}));
    EXPECT_TRUE(journal.saw({"runChildProcessWait: child started, pid *",
                             "runChildProcessWait: child ended, pid: *, exit code: 3"}));
}

TEST_F(Library, AMissingProgramIsAnError) {
    EXPECT_FALSE(Utils::runChildProcessWait("/nowhere", {}, {}));
    EXPECT_TRUE(journal.saw({"runChildProcess: program not found: /nowhere",
                             "sessionNotification: exception: runChildProcess"}));
    EXPECT_FALSE(Utils::processRunning(0) || Utils::processRunning(-1));
}

} // namespace VorlTest

#include "common/file_descriptor.h"
#include "fixtures/daemon.h"
#include "fixtures/x_server.h"
#include "session/client_sockets.h"
#include "session/configuration.h"
#include "session/not_ready.h"
#include "session/password_file.h"
#include "session/x_display.h"

#include <future>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace VorlTest {

using namespace Vorl::Session;

namespace {

template<typename Call> std::string problemOf(Call call) {
    try {
        static_cast<void>(call());
    } catch (const std::exception& problem) {
        return problem.what();
    }
    return "none";
}

// With a named pipe in that place. No call waits until somebody writes to it.
template<typename Call> std::string problemOfPipe(const std::filesystem::path& path, Call call) {
    std::filesystem::remove(path);
    EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
    auto problem = std::async(std::launch::async, [&] { return problemOf(call); });
    EXPECT_EQ(problem.wait_for(5s), std::future_status::ready) << "waits for a writer";
    const Vorl::FileDescriptor writer(open(path.c_str(), O_RDWR | O_CLOEXEC));
    return problem.get();
}

bool has(const std::string& text, const char* part) {
    return text.find(part) != std::string::npos;
}

} // namespace

TEST(SessionFiles, ThePasswordFileIsForItsAccountAlone) {
    const std::filesystem::path file = makeDirectory() / "passwd";
    const auto find = [&](const char* user) { return findCredentials(file, user); };
    EXPECT_TRUE(has(problemOf([&] { return find("bob"); }), "vorl_session password bob"));
    storeCredentials(file, "alice", makeCredentials("alice", "secret"));
    storeCredentials(file, "ali", makeCredentials("ali", "päss€🔑"));
    storeCredentials(file, "bob", makeCredentials("bob", "x"));
    storeCredentials(file, "bob", "");
    EXPECT_EQ(find("alice"), "alice:::878d8014606cda29677a44efa1353fc7:::");
    EXPECT_EQ(find("ali"), "ali:::585760e5be8888ff662e31feefe7da3b:::");
    EXPECT_NE(problemOf([&] { return find("bob"); }), "none");
    struct stat facts {};
    ASSERT_EQ(stat(file.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 07777, 0600U);

    for (const mode_t mode : {0640U, 0620U, 0604U, 0602U}) {
        chmod(file.c_str(), mode);
        EXPECT_TRUE(has(problemOf([&] { return find("alice"); }), "chmod 600")) << mode;
    }
    chmod(file.c_str(), 0600);
    EXPECT_EQ(problemOf([&] { return find("alice"); }), "none");
    if (hasAllAccounts()) {
        ASSERT_EQ(chown(file.c_str(), 65534, 0), 0);
        EXPECT_TRUE(has(problemOf([&] { return find("alice"); }), "chown root"));
    }
    EXPECT_TRUE(has(problemOf([] { return makeCredentials("a", ""); }), "empty"));
    EXPECT_TRUE(has(problemOf([] { return makeCredentials("a", "a\xff"); }), "UTF-8"));
    std::filesystem::rename(file, file.string() + "2");
    std::filesystem::create_symlink(file.string() + "2", file);
    EXPECT_TRUE(has(problemOf([&] { return find("alice"); }), "cannot be read"));
    EXPECT_TRUE(has(problemOfPipe(file, [&] { return find("alice"); }),
                    "must be a file of root: chown root /"));
}

TEST(SessionFiles, ATerminalIsAskedForThePasswordTwiceAndDoesNotShowIt) {
    const std::filesystem::path directory = makeDirectory(), file = directory / "passwd";
    std::ofstream(directory / "json") << R"({"password:file": ")" << file.string() << "\"}";
    const auto type = [&](const std::string& first, const std::string& second) {
        int terminal = -1;
        const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
        if (child == 0)
            execl(VORL_SESSION, VORL_SESSION, "--config", (directory / "json").c_str(), "password",
                  "root", nullptr);
        fcntl(terminal, F_SETFL, O_NONBLOCK);
        std::string shown;
        const auto shows = [&](const char* text) {
            for (char byte = 0; read(terminal, &byte, 1) == 1;)
                shown += byte;
            return shown.find(text) != std::string::npos;
        };
        EXPECT_TRUE(eventually([&] { return shows("log-in: "); })) << shown;
        EXPECT_EQ(write(terminal, first.data(), first.size()), ssize_t(first.size()));
        EXPECT_TRUE(eventually([&] { return shows("again: "); })) << shown;
        EXPECT_EQ(write(terminal, second.data(), second.size()), ssize_t(second.size()));
        EXPECT_TRUE(
            eventually([&] { return shows("") && waitpid(child, nullptr, WNOHANG) == child; }));
        shows("");
        close(terminal);
        EXPECT_FALSE(has(shown, "secret")) << shown;
        return shown;
    };
    EXPECT_TRUE(has(type("secret\n", "another\n"), "the two passwords differ"));
    EXPECT_FALSE(std::filesystem::exists(file));
    type("secret\n", "secret\n");
    EXPECT_TRUE(has(readFile(file), "root:"));
}

TEST(SessionFiles, NoPasswordIsLostWhenSeveralAreSetOrTheDiskIsFull) {
    const std::filesystem::path directory = makeDirectory(), file = directory / "passwd";
    ASSERT_EQ(mount("none", directory.c_str(), "tmpfs", 0, "size=16k"), 0);
    const auto store = [&file](const std::string& user) {
        for (int i = 0; i < 100; ++i)
            storeCredentials(file, user + std::to_string(i), user + std::to_string(i) + ":");
    };
    storeCredentials(file, "alice", "alice:");
    {
        const std::jthread first(store, "bob"), second(store, "eve");
        for (int i = 0; i < 1000; ++i)
            ASSERT_EQ(problemOf([&] { return findCredentials(file, "alice"); }), "none");
    }
    for (int i = 0; i < 100; ++i)
        for (const std::string user : {"bob", "eve"})
            EXPECT_NO_THROW((void)findCredentials(file, user + std::to_string(i)));
    EXPECT_THROW(storeCredentials(file, "mallory", "mallory:" + std::string(20'000, 'x')),
                 std::system_error);
    EXPECT_EQ(problemOf([&] { return findCredentials(file, "alice"); }), "none");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory), {}), 1);
    umount2(directory.c_str(), MNT_DETACH);
}

TEST(SessionFiles, AConfigurationWithAMistakeIsNotTaken) {
    const std::filesystem::path file = makeDirectory() / "session.json";
    const auto read = [&](const std::string& text) {
        std::ofstream(file) << text;
        return readConfiguration(file);
    };
    const Rules usual = read("{}").rules;
    EXPECT_TRUE(usual.policy == Policy::Replace && usual.limit == 10 && !usual.endOnLock &&
                usual.delayFailedAddresses);
    const DaemonAddress address = readDaemonAddress(file);
    EXPECT_TRUE(address.address == "0.0.0.0" && address.port == 3389);
    EXPECT_EQ(read(R"({"connection:policy": "multiallow"})").rules.policy, Policy::Allow);
    EXPECT_EQ(read(R"({"connection:policy": "authlock"})").rules.policy, Policy::Refuse);
    const Rules rules = read(R"({"connection:limit": 3, "connection:endonlock": true,
                                 "connection:slowdown": false})")
                            .rules;
    EXPECT_TRUE(rules.limit == 3 && rules.endOnLock && !rules.delayFailedAddresses);
    for (const auto& [text, part] : {std::pair(R"({"connection:polcy": ""})", "connection:polcy"),
                                     {R"({"connection:limit": "2"})", "a whole number"},
                                     {R"({"connection:endonlock": 1})", "true or false"},
                                     {"{", "no JSON object"},
                                     {"{} // remark", "no JSON object"},
                                     {"[]", "no JSON object"}})
        EXPECT_TRUE(has(problemOf([&, &content = text] { return read(content); }), part)) << text;
    std::filesystem::remove(file);
    EXPECT_TRUE(has(problemOf([&] { return readConfiguration(file); }), "cannot be read"));
    for (const std::string key : {"listen:port", "listen:addr"}) {
        std::ofstream(file) << "{\"" + key + "\": []}";
        EXPECT_TRUE(has(problemOf([&] { return readDaemonAddress(file); }), key.c_str()));
    }
}

TEST(SessionFiles, TheCookieComesFromTheXServerThatBelongsToTheSession) {
    const std::filesystem::path directory = makeDirectory(), authority = directory / "authority";
    LoginSession session{"3", 0, "root", "/root", "x11", ":5", true};
    const auto find = [&] { return findDisplay(session); };
    XDisplay display;
    const auto copyOne = [&] {
        copyCookies(display, session, directory / "copy");
        return 0;
    };
    writeCookie(authority, "0123456789abcdef");
    XServer server(5);
    EXPECT_TRUE(has(problemOf(find), "no X server"));
    server.start({"-nolisten", "tcp"});
    EXPECT_TRUE(has(problemOf(find), "without -auth"));
    server.start({"-nolisten", "tcp", "-auth", authority});
    display = find();
    EXPECT_EQ(display.authority, authority);
    copyOne();
    EXPECT_EQ(std::filesystem::status(directory / "copy").permissions(),
              std::filesystem::perms(0640));
    const std::string copy = readFile(directory / "copy");
    EXPECT_EQ(copy, std::string("\xff\xff\0\0\0\1"
                                "5"
                                "\0\x12MIT-MAGIC-COOKIE-1\0\x10"
                                "0123456789abcdef",
                                45));
    std::ofstream(authority) << "root:*:19000:0:99999:7:::";
    EXPECT_TRUE(has(problemOf(copyOne), "no cookie"));
    std::filesystem::rename(authority, directory / "link");
    std::filesystem::create_symlink(directory / "link", authority);
    EXPECT_TRUE(has(problemOf(copyOne), "cannot be read")); // a link to anything
    EXPECT_TRUE(has(problemOfPipe(authority, copyOne), "is not one of root's session 3"));
    std::filesystem::remove(authority);
    EXPECT_EQ(readFile(directory / "copy"), copy);

    session.display.clear(); // logind does not know it
    EXPECT_TRUE(has(problemOf(find), "no X display"));
    {
        std::ofstream(directory / "cgroup") << "1:name=systemd:/user.slice/session-3.scope\n"
                                               "0::/user.slice/session-3.scope\n";
        const ScopedMount member("/proc/" + std::to_string(server.pid()) + "/cgroup",
                                 directory / "cgroup");
        EXPECT_EQ(problemOf(find), "none");
    }
    session.display = ":5";
    if (!hasAllAccounts())
        GTEST_SKIP() << "the rest needs other accounts";
    writeCookie(authority, "0123456789abcdef");
    ASSERT_EQ(chown(authority.c_str(), 65534, 0), 0);
    EXPECT_TRUE(has(problemOf(copyOne), "is not one of root's session 3"));
    server.start({"-auth", authority}, 65534);
    EXPECT_TRUE(has(problemOf(find), "belongs to a stranger, uid 65534"));
}

} // namespace VorlTest

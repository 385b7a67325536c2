#include "fixtures/daemon.h"
#include "fixtures/x_server.h"
#include "session/client_sockets.h"
#include "session/configuration.h"
#include "session/not_ready.h"
#include "session/password_file.h"
#include "session/x_display.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

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

    chmod(file.c_str(), 0640);
    EXPECT_TRUE(has(problemOf([&] { return find("alice"); }), "chmod 600"));
    chmod(file.c_str(), 0600);
    EXPECT_EQ(problemOf([&] { return find("alice"); }), "none");
    if (hasAllAccounts()) {
        ASSERT_EQ(chown(file.c_str(), 65534, 0), 0);
        EXPECT_TRUE(has(problemOf([&] { return find("alice"); }), "chown root"));
    }
    EXPECT_TRUE(has(problemOf([] { return makeCredentials("a", ""); }), "empty"));
    EXPECT_TRUE(has(problemOf([] { return makeCredentials("a", "\xff"); }), "UTF-8"));
}

TEST(SessionFiles, AConfigurationWithAMistakeIsNotTaken) {
    const std::filesystem::path file = makeDirectory() / "session.json";
    const auto read = [&](const std::string& text) {
        std::ofstream(file) << text;
        return readConfiguration(file);
    };
    EXPECT_EQ(read("{}").rules.policy, Policy::Replace);
    EXPECT_EQ(read(R"({"connection:policy": "multiallow"})").rules.policy, Policy::Allow);
    EXPECT_EQ(read(R"({"connection:policy": "authlock"})").rules.policy, Policy::Refuse);
    for (const auto& [text, part] : {std::pair(R"({"connection:polcy": ""})", "connection:polcy"),
                                     {R"({"connection:limit": "2"})", "a whole number"},
                                     {R"({"connection:endonlock": 1})", "true or false"},
                                     {"{", "no JSON object"},
                                     {"[]", "no JSON object"}})
        EXPECT_TRUE(has(problemOf([&] { return read(text); }), part)) << text;
    std::filesystem::remove(file);
    EXPECT_TRUE(has(problemOf([&] { return readConfiguration(file); }), "cannot be read"));
    std::ofstream(file) << R"({"listen:port": "3389"})";
    EXPECT_TRUE(has(problemOf([&] { return readDaemonAddress(file); }), "listen:port"));
}

TEST(SessionFiles, TheCookieComesFromTheXServerThatBelongsToTheSession) {
    const std::filesystem::path directory = makeDirectory(), authority = directory / "authority";
    const LoginSession session{"3", 0, "root", "/root", "x11", ":5", true};
    const auto find = [&] { return findDisplay(session); };
    writeCookie(authority, "0123456789abcdef");
    XServer server(5);
    EXPECT_TRUE(has(problemOf(find), "no X server"));
    server.start({"-nolisten", "tcp"});
    EXPECT_TRUE(has(problemOf(find), "without -auth"));
    server.start({"-nolisten", "tcp", "-auth", authority});
    const XDisplay display = find();
    EXPECT_EQ(display.authority, authority);
    copyCookies(display, session, directory / "copy");
    const std::string copy = readFile(directory / "copy");
    EXPECT_EQ(copy, std::string("\xff\xff\0\0\0\1"
                                "5"
                                "\0\x12MIT-MAGIC-COOKIE-1\0\x10"
                                "0123456789abcdef",
                                45));
    std::ofstream(authority) << "root:*:19000:0:99999:7:::";
    EXPECT_TRUE(has(problemOf([&] {
                        copyCookies(display, session, directory / "copy");
                        return 0;
                    }),
                    "no cookie"));
    EXPECT_EQ(readFile(directory / "copy"), copy);
    if (!hasAllAccounts())
        GTEST_SKIP() << "the rest needs other accounts";
    writeCookie(authority, "0123456789abcdef");
    ASSERT_EQ(chown(authority.c_str(), 65534, 0), 0);
    EXPECT_TRUE(has(problemOf([&] {
                        copyCookies(display, session, directory / "copy");
                        return 0;
                    }),
                    "is not one of root's session 3"));
    server.start({"-auth", authority}, 65534);
    EXPECT_TRUE(has(problemOf(find), "belongs to a stranger, uid 65534"));
}

} // namespace VorlTest

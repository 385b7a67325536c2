#include "fixtures/stage.h"

namespace VorlTest {

class Launch : public Stage {
protected:
    // The arguments that the shadow server gets after its socket, under these settings.
    std::string arguments(const std::string& settings, const std::string& session) {
        start(settings);
        describe(session);
        const Fd client = open();
        const std::string all = shadow()["arguments"].asString();
        EXPECT_TRUE(all.starts_with(socket)) << all;
        stop();
        return all.substr(std::min(socket.size(), all.size()));
    }

    const std::string socket = "/ipc-socket:" + (daemon.workDirectory / "proxy_7_0").string();
    const std::string sam = "/sam-file:" + (daemon.workDirectory / "sam_3_0").string();
};

TEST_F(Launch, TheArgumentsComeFromTheTemplateAndTheSession) {
    EXPECT_EQ(arguments(R"("x11rdp:args": null, "kerberos:keytab": "/dev/null")",
                        R"("display": null, "sec:nla": false, "sec:auth": false)"),
              ", /max-connections:1, -sec-rdp, -sec-nla, -sec-tls");
    EXPECT_TRUE(shadow()["environment"].asString().ends_with(
        "DISPLAY=:0, XAUTHORITY=, FREERDP_STRONG_SESSION_CHECK=1, SESSION_USER=alice"));
    EXPECT_FALSE(std::filesystem::exists(daemon.workDirectory / "sam_3_0"));

    EXPECT_EQ(arguments(R"("x11rdp:args": ["/ipc-socket:%{socket}",
                           "%{home}|%{display}|%{authfile}|%{display}", 5],
                           "transport:debug": true, "check:domain": true)",
                        R"("display": -3, "xauthfile": "<%{home}>", "home": "/home/alice",
                           "sec:rdp": true, "sec:tls": true, "ntlm": "")"),
              ", /home/alice|-3|</home/alice>|-3, 5, +sec-rdp, +sec-nla, +sec-tls, +auth");
    EXPECT_TRUE(shadow()["environment"].asString().ends_with(
        "DISPLAY=:-3, XAUTHORITY=<%{home}>, FREERDP_STRONG_SESSION_CHECK=1, SESSION_USER=alice"));
}

TEST_F(Launch, TheProgramThatCameWithTheDaemonGetsMore) {
    const Cover libexec("/usr/libexec");
    std::filesystem::create_directory("/usr/libexec/vorl");
    std::filesystem::copy(SHADOW_STUB, "/usr/libexec/vorl/any-name");
    const std::string program = R"("x11rdp:path": "/usr/libexec/vorl/any-name", )";
    const std::string security = "-sec-rdp, +sec-nla, " + sam + ", -sec-tls, +auth";

    const std::string keytab = R"("kerberos:keytab": "/dev/null", )";
    EXPECT_EQ(arguments(program + keytab + R"("debug:level": "debug")", ""),
              ", stub:echo, /keytab:/dev/null, " + security + ", /log-level:INFO");
    const std::string missing = R"("kerberos:keytab": "/no/keytab", )";
    EXPECT_EQ(arguments(program + missing + R"("debug:level": "info")", ""),
              ", stub:echo, " + security + ", /log-level:INFO");
    EXPECT_TRUE(journal.saw({"prepareX11RdpArgs: keytab not exists, path: `/no/keytab'"}));
    for (const auto& level : {"none", "trace"})
        EXPECT_EQ(arguments(program + R"("debug:level": ")" + level + '"', ""),
                  ", stub:echo, " + security + ", /log-level:ERROR");
    EXPECT_EQ(arguments(program + R"("debug:level": "none", "transport:debug": true)", ""),
              ", stub:echo, " + security + ", /log-level:DEBUG");
}

TEST_F(Launch, AMissingProgramIsLookedForInTheUsualPlaces) {
    start(R"("x11rdp:path": "/nowhere", "transport:debug": true)");
    const Cover libexec("/usr/libexec"), bin("/usr/bin"), local("/usr/local/bin");
    std::filesystem::create_directory("/usr/libexec/vorl");
    const std::vector<std::string> places = {"/usr/libexec/vorl/freerdp-shadow-cli",
                                             "/usr/bin/freerdp-shadow-cli",
                                             "/usr/local/bin/freerdp-shadow-cli"};
    for (const std::string& place : places)
        std::filesystem::copy(SHADOW_STUB, place);
    for (const std::string& place : places) {
        const Fd client = open(static_cast<uint32_t>(place.size()));
        EXPECT_TRUE(
            journal.saw({"requestRdpTransport: rdp transport changed to: `" + place + "'"}));
        EXPECT_EQ(shadow()["program"], place);
        EXPECT_EQ(shadow()["arguments"].asString().ends_with(", /log-level:DEBUG"),
                  place == places[0]);
        std::filesystem::remove(place);
    }
    allow();
    EXPECT_TRUE(ends(connectTo(port)));
    EXPECT_TRUE(journal.saw({
        "requestRdpTransport: rdp transport not found, check config option: `x11rdp:path'",
        "actionCreateTransport: exception: requestRdpTransport, session id: 7",
    }));
}

} // namespace VorlTest

#include "fixtures/journal.h"
#include "session/admission.h"
#include "session/audit.h"
#include "session/tickets.h"

#include <gtest/gtest.h>

namespace VorlTest {

using namespace Vorl::Session;
using namespace std::chrono_literals;

// The decisions of the session service, driven by events and a clock value.
class SessionAdmission : public testing::Test {
protected:
    SessionAdmission() { reach("3", "alice"); }

    void reach(const std::string& session, const std::string& user) {
        admission.setDesktop(Admission::Desktop{session, user}, {session}, now);
    }

    void pass(Clock::duration time) {
        now += time;
        admission.advance(now);
    }

    // What was decided since the last call, as words with the allowance's number.
    std::string decided() {
        static const char* const names[] = {"allow",      "cancel", "open",  "taken",   "close",
                                            "disconnect", "shown",  "ended", "unshown", "refused"};
        std::string text;
        collect();
        for (const Action& action : std::exchange(actions, {})) {
            text += names[static_cast<int>(action.what)] + std::string(" ") +
                    std::to_string(action.client.number) + ", ";
            reason = action.client.end.empty() ? reason : action.client.end;
        }
        return text;
    }

    void collect() {
        for (Action& action : admission.takeActions()) {
            if (action.what == Action::What::Allow)
                allowed = action.client.number;
            actions.push_back(std::move(action));
        }
    }

    // The next allowance, up to its relay.
    std::uint32_t connect(const std::string& address = "192.0.2.1") {
        pass(300ms); // the daemon may be busy
        collect();
        const std::uint32_t number = allowed;
        admission.listenStarted(number, true, now);
        EXPECT_TRUE(admission.clientConnected(number, address, 4000, now)) << number;
        EXPECT_TRUE(admission.mayDescribe(number) && !admission.mayDescribe(number - 1));
        admission.relayStarted(number, 1000, now);
        return number;
    }

    void show(std::uint32_t number) { admission.counted(number, 6'301, 4'022, now); }

    std::uint32_t connectAndSee() {
        const std::uint32_t number = connect();
        show(number);
        return number;
    }

    void use(Policy policy, int limit = 10) { admission.setRules({policy, limit, true, true}); }

    bool isConnected(std::uint32_t number) {
        for (const Client& client : admission.clients()) {
            if (client.number == number)
                return client.end.empty();
        }
        return false;
    }

    Time now{1000s};
    std::uint32_t allowed = 0; // the newest allowance
    std::vector<Action> actions;
    std::string reason; // of the latest decision that has one
    Admission admission{7};
};

TEST_F(SessionAdmission, RepeatsAnAllowanceUntilTheDaemonListensAndUsesEachNumberOnce) {
    EXPECT_EQ(decided(), "allow 7, ");
    pass(999ms);
    EXPECT_EQ(decided(), "");
    pass(1ms);
    EXPECT_EQ(decided(), "allow 7, ");
    pass(2s);
    EXPECT_TRUE(admission.unanswered(now));
    admission.listenStarted(7, true, now);
    EXPECT_FALSE(admission.unanswered(now));
    EXPECT_TRUE(admission.listening());
    decided();
    pass(24h);
    EXPECT_EQ(decided(), "");

    admission.setDesktop({}, {}, now);
    EXPECT_EQ(decided(), "cancel 7, close 7, ");
    reach("4", "bob");
    EXPECT_EQ(decided(), ""); // the daemon is busy closing the port
    EXPECT_EQ(admission.nextDeadline(), now + 300ms);
    pass(300ms);
    EXPECT_EQ(decided(), "allow 8, ");
    admission.listenStarted(7, true, now); // of a repeated allowance: nobody would watch over it
    EXPECT_EQ(decided(), "cancel 7, ");
    EXPECT_FALSE(admission.clientConnected(7, "192.0.2.1", 4000, now));

    admission.listenStarted(8, false, now);
    pass(4999ms);
    EXPECT_EQ(decided(), ""); // the port is in use
    pass(1ms);
    EXPECT_EQ(decided(), "allow 9, ");
    admission.daemonChanged(now);
    EXPECT_EQ(decided(), "allow 10, ");
}

TEST_F(SessionAdmission, PoliciesCountOnlyClientsThatSeeThePicture) {
    for (const Policy policy : {Policy::Refuse, Policy::Replace, Policy::Allow}) {
        use(policy, 2);
        const std::uint32_t user = connectAndSee();
        // As long as one may still come, a stranger changes nothing for the user.
        const std::uint32_t stranger = policy == Policy::Refuse ? 0 : connect("192.0.2.66");
        admission.counted(stranger, 2'286, 100'000, now);
        admission.counted(stranger, 100'000, 1'029, now);
        EXPECT_TRUE(isConnected(user));
        decided();

        EXPECT_EQ(admission.full(), policy == Policy::Refuse);
        EXPECT_EQ(admission.nextDeadline() == Time::max(), policy == Policy::Refuse);
        if (policy != Policy::Refuse) {
            const std::uint32_t second = connectAndSee();
            EXPECT_EQ(isConnected(user), policy == Policy::Allow);
            EXPECT_TRUE(isConnected(second));
            EXPECT_TRUE(isConnected(stranger));
            EXPECT_EQ(admission.full(), policy == Policy::Allow);
        }
        for (const Client& client : std::vector(admission.clients()))
            admission.relayEnded(client.number, now);
    }
    use(Policy::Allow, 0); // means one
    EXPECT_TRUE(isConnected(connectAndSee()));
    EXPECT_TRUE(admission.full());
}

TEST_F(SessionAdmission, OfTwoThatCameTogetherThePolicyDecidesWhenTheySeeThePicture) {
    use(Policy::Refuse);
    const std::uint32_t first = connect(), second = connect();
    decided();
    show(second);
    show(second);
    EXPECT_EQ(decided(), "shown 8, cancel 9, ");
    show(first);
    EXPECT_EQ(decided(), "shown 7, disconnect 7, ");
    EXPECT_TRUE(isConnected(second));
    admission.locked("3", now); // those that are being ended do not count
    EXPECT_TRUE(isConnected(connectAndSee()));
}

TEST_F(SessionAdmission, AClientThatDoesNotLogInGoesAfterHalfAMinute) {
    const std::uint32_t silent = connect();
    EXPECT_EQ(decided(), "allow 7, open 7, taken 7, allow 8, "); // the others are not kept waiting
    admission.listenStarted(8, true, now);
    decided();
    EXPECT_EQ(admission.nextDeadline(), now + 30s);
    pass(29'999ms);
    EXPECT_EQ(decided(), "");
    pass(1ms);
    EXPECT_EQ(decided(), "disconnect 7, ");
    EXPECT_EQ(reason, "it did not log in within 30 seconds");
    pass(2s);
    EXPECT_EQ(decided(), "disconnect 7, "); // it may have been lost
    EXPECT_EQ(admission.nextDeadline(), now + 2s);
    show(silent);
    pass(1999ms);
    EXPECT_EQ(decided(), "");
    admission.relayEnded(silent, now);
    EXPECT_EQ(decided(), "unshown 7, ");
}

TEST_F(SessionAdmission, SlowsDownAnAddressThatKeepsFailing) {
    const auto fail = [&] { admission.relayEnded(connect(), now); };
    const auto isRefused = [&](const char* address) {
        pass(300ms); // the daemon has let the last one go
        collect();
        const bool admitted = admission.clientConnected(allowed, address, 4000, now);
        if (admitted)
            admission.notDescribed(allowed, "only tried", now);
        pass(1s);
        return !admitted;
    };
    fail(); // costs nothing: clients that ask for the kinds of security do so
    fail();
    EXPECT_TRUE(isRefused("192.0.2.1"));
    EXPECT_FALSE(isRefused("192.0.2.2"));
    EXPECT_FALSE(isRefused("192.0.2.1")); // more than a second later
    for (int i = 0; i < 10; ++i, pass(31s))
        fail();
    EXPECT_FALSE(isRefused("192.0.2.1")); // half a minute is the most
    fail();
    pass(20s);
    EXPECT_TRUE(isRefused("192.0.2.1"));
    pass(10s);
    connectAndSee();
    fail();
    EXPECT_FALSE(isRefused("192.0.2.1")); // it has shown that it can log in
    fail();
    admission.setRules({Policy::Replace, 10, false, false});
    EXPECT_FALSE(isRefused("192.0.2.1")); // where all have one address
    use(Policy::Replace);
    pass(601s);
    fail();
    EXPECT_FALSE(isRefused("192.0.2.1")); // which has been forgotten
    for (int i = 0; i < 1024; ++i)
        admission.relayEnded(connect("198.51.100." + std::to_string(i)), now);
    fail();
    EXPECT_FALSE(isRefused("192.0.2.1")); // for the sake of so many others
    const auto endTwo = [&](const char* address, Clock::duration after) {
        const std::uint32_t one = connect(address), two = connect(address);
        pass(after);
        admission.setDesktop({}, {}, now); // ends those that have not been ended
        admission.relayEnded(one, now);
        admission.relayEnded(two, now);
        reach("3", "alice");
    };
    endTwo("192.0.2.3", 31s);
    EXPECT_TRUE(isRefused("192.0.2.3")); // silent for half a minute
    endTwo("192.0.2.4", 1s);
    EXPECT_FALSE(isRefused("192.0.2.4")); // the session has ended
}

TEST_F(SessionAdmission, ManySilentClientsCannotShutOutTheUser) {
    for (int i = 0; i < 4; ++i)
        connect("192.0.2.66");
    collect();
    EXPECT_FALSE(admission.clientConnected(allowed, "192.0.2.66", 4000, now));
    for (int i = 0; i < 13; ++i)
        connect("192.0.2." + std::to_string(100 + i));
    EXPECT_FALSE(isConnected(7)); // the oldest
    EXPECT_TRUE(isConnected(8));
    EXPECT_TRUE(isConnected(connectAndSee()));
}

TEST_F(SessionAdmission, ConnectionsEndWithTheirSessionAndOnLockWhereThatIsTold) {
    for (const Policy policy : {Policy::Refuse, Policy::Replace}) {
        reach("3", "alice");
        const std::uint32_t alice = connectAndSee();
        admission.setRules({policy, 10, false, true});
        admission.locked("3", now);
        EXPECT_TRUE(isConnected(alice));
        use(policy);
        admission.locked("4", now);
        EXPECT_TRUE(isConnected(alice));
        // Another user in the foreground has the port, and takes nothing from who is connected.
        admission.setDesktop(Admission::Desktop{"4", "bob"}, {"3", "4"}, now);
        const std::uint32_t bob = connectAndSee();
        EXPECT_TRUE(isConnected(alice));
        admission.setDesktop(Admission::Desktop{"4", "bob"}, {"4"}, now);
        EXPECT_FALSE(isConnected(alice));
        EXPECT_TRUE(isConnected(bob));
        admission.locked("4", now);
        EXPECT_FALSE(isConnected(bob));
    }
}

TEST_F(SessionAdmission, AClientOnItsWayGetsNothingOfTheNextSession) {
    admission.listenStarted(7, true, now);
    EXPECT_TRUE(admission.clientConnected(7, "192.0.2.1", 4000, now));
    EXPECT_EQ(admission.nextDeadline(), now + 10s);
    reach("4", "bob");
    EXPECT_FALSE(admission.mayDescribe(7));
    decided();
    admission.relayStarted(7, 1000, now);
    EXPECT_EQ(decided(), "disconnect 7, allow 8, ");
    admission.listenStarted(8, true, now);
    EXPECT_TRUE(admission.clientConnected(8, "192.0.2.1", 4000, now));
    pass(10s); // its shadow server has failed
    EXPECT_EQ(decided(), "open 8, taken 8, unshown 8, disconnect 7, allow 9, ");
    admission.listenStarted(9, true, now);
    reach("5", "eve"); // the port is for nobody else
    EXPECT_EQ(decided(), "open 9, cancel 9, close 9, ");
    pass(300ms);
    EXPECT_TRUE(admission.clientConnected(10, "192.0.2.1", 4000, now));
    decided();
    admission.daemonChanged(now);
    EXPECT_EQ(decided(), "unshown 10, allow 11, ");
    EXPECT_EQ(reason, "vorl_proxy has ended");
    admission.relayStarted(99, 1000, now); // of no client that we know
    EXPECT_EQ(decided(), "disconnect 99, ");
    connectAndSee();
    decided();
    admission.stop(now);
    EXPECT_EQ(decided(), "cancel 12, disconnect 11, ");
}

TEST_F(SessionAdmission, TheJournalHasWhoseConnectionItWasAndWhyItEnded) {
    Journal journal;
    static char name[] = "vorl_session"; // whose fields the journal does not know
    char* const own = std::exchange(program_invocation_short_name, name);
    const Client client{7,         "3",  "alice", "192.0.2.1", 4000,   1000,
                        now - 65s, true, 6301,    5053,        "lost", {}};
    for (const auto what :
         {Action::What::Shown, Action::What::Ended, Action::What::Unshown, Action::What::Refused})
        audit({what, client}, now);
    program_invocation_short_name = own;
    std::string messages;
    for (Journal::Record& record : journal.records()) {
        messages += record["PRIORITY"] + " " + record["MESSAGE_ID"].substr(0, 4) + " " +
                    record["MESSAGE"] + "\n";
        std::string facts;
        for (const char* field :
             {"SESSION", "USER", "ADDRESS", "PORT", "PID", "SECONDS", "SENT", "RECEIVED", "REASON"})
            facts += record[std::string("VORL_") + field] + " ";
        EXPECT_EQ(facts, "3 alice 192.0.2.1 4000 1000 65 6301 5053 lost ");
    }
    EXPECT_EQ(messages,
              "5 2f8a 192.0.2.1 sees alice's session 3\n"
              "5 b0b3 192.0.2.1 no longer sees alice's session 3 after 65 s: lost\n"
              "4 6c1d 192.0.2.1 never saw alice's session 3, gone after 65 s: lost\n"
              "4 6c1d 192.0.2.1 was turned away from alice's session 3: failed too often\n");
}

TEST_F(SessionAdmission, ATicketIsForOneUserOnceAndForFiveMinutes) {
    Tickets tickets;
    const std::string first = tickets.make("alice", now).token,
                      second = tickets.make("bob", now + 1s).token;
    EXPECT_TRUE(tickets.takeExpired(now + 299s).empty());
    EXPECT_EQ(tickets.takeExpired(now + 300s).at(0).token, first);
    EXPECT_TRUE(tickets.takeUsed("alice").empty());
    EXPECT_EQ(tickets.takeUsed("bob").at(0).token, second);
    EXPECT_TRUE(tickets.takeUsed("bob").empty());
}

} // namespace VorlTest

#include "fixtures/stage.h"

namespace VorlTest {

using Leak = Stage;

TEST_F(Leak, NothingStaysOfTwoHundredConnectionsAndOfEightAtOnce) {
    start();
    EXPECT_TRUE(echoes(open())); // what is made once and kept
    EXPECT_TRUE(journal.saw({"JobTransferStopped: child ended, *"}));
    const std::string before = daemon.holdings();
    for (uint32_t session = 1; session <= 200; ++session)
        ASSERT_TRUE(echoes(open(session, session))) << session;
    EXPECT_TRUE(eventually([&] { return daemon.holdings() == before; })) << daemon.holdings();

    std::vector<Fd> clients;
    for (uint32_t session = 1; session <= 8; ++session)
        clients.push_back(open(session, session));
    for (const Fd& client : clients)
        EXPECT_TRUE(echoes(client, std::string(100'000, static_cast<char>('a' + client % 26))));
    clients.clear();
    EXPECT_TRUE(eventually([&] { return daemon.holdings() == before; })) << daemon.holdings();
    EXPECT_NE(before.find("children: , files: "), std::string::npos) << before;
}

} // namespace VorlTest

#include "fixtures/private_machine.h"

#include <csignal>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!GTEST_FLAG_GET(list_tests)) {
        VorlTest::enterPrivateMachine();
        std::signal(SIGPIPE, SIG_IGN);
    }
    return RUN_ALL_TESTS();
}

#include "fixtures/private_machine.h"

#include <gtest/gtest.h>

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!GTEST_FLAG_GET(list_tests))
        VorlTest::enterPrivateMachine();
    return RUN_ALL_TESTS();
}

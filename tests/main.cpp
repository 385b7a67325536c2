#include "fixtures/private_machine.h"

#include <gtest/gtest.h>

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!GTEST_FLAG_GET(list_tests))
        VorlTest::enterPrivateMachine();
    return RUN_ALL_TESTS();
}

// A call that the tests' session service never answers: libdbus-c++ keeps what it would answer
// with.
extern "C" const char* __lsan_default_suppressions();  // NOLINT(bugprone-reserved-identifier)
extern "C" const char* __lsan_default_suppressions() { // NOLINT(bugprone-reserved-identifier)
    return "leak:libdbus-c++-1.so\n";
}

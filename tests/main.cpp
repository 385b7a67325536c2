#include "fixtures/sandbox.h"

#include <gtest/gtest.h>

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!GTEST_FLAG_GET(list_tests))
        VorlTest::enterSandbox();
    return RUN_ALL_TESTS();
}

// libdbus-c++ leaks the pending answer of a call that the tests' session service never answers.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming): the sanitizer's name
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libdbus-c++-1.so\n";
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)
